// Reading a firmware image the way both targets do: opening the package;
// its length; whole, in pieces, for the checksum; and one chunk at the
// position the target names.
//
// The size type is the caller's: the camera carries the low 32 bits of the
// file size, the board the full offset, and the messages print it as is.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <optional>
#include <streambuf>
#include <string>
#include <vector>

namespace Updater::Image {

enum class Opened { Yes, Missing, Refused };

// A package opened for reading, as a stream over its own descriptor.
class File : public std::istream {
 public:
  File();
  ~File() override;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens the package at `path` without blocking, so that a FIFO put in its
  // place cannot hang the run, through the descriptor of its directory that
  // was checked. Refused, after a red error naming the path and the reason:
  // a firmware directory or a file that another user could have written (see
  // common/file_trust.hpp), a file that is not a regular one, or a link to
  // anything but another name in the same directory ("a link out of the
  // firmware directory"). Missing: no package, or open() failed.
  Opened Open(const std::string& path);
  bool is_open() const;
  void close();

 private:
  class Buffer : public std::streambuf {
   public:
    int fd = -1;
    void Drop() {  // what was buffered, and the position, for the next file
      setg(bytes_, bytes_, bytes_);
      next_ = 0;
    }

   protected:
    int_type underflow() override;
    std::streamsize xsgetn(char* to, std::streamsize count) override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode mode) override;

   private:
    // Up to `count` bytes at the file position just past the buffer, which moves on by what was read.
    ssize_t ReadAt(char* to, std::size_t count);

    char bytes_[4096];
    off_t next_ = 0;  // the file position just past what is buffered
  };
  Buffer buffer_;
};

// Pieces of the whole-image pass: large enough to read quickly, small enough
// that memory stays flat whatever the image size.
inline constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;

// Whole bytes of the file behind `image`, -1 when the stream cannot tell; leaves
// the stream at the start, ready for a pass that may follow an earlier one.
inline std::streamoff Length(std::istream& image) {
  image.clear();
  image.seekg(0, std::ios::end);
  const std::streamoff end = image.tellg();
  image.seekg(0, std::ios::beg);
  return end;
}

template <class Wanted, class Got>
void ReportShortRead(Wanted wanted, Got got) {
  std::cerr << "Couldn't read full [" << wanted << "] bytes into chunk, "
            << "only read [" << got << "] bytes." << std::endl;
}

// Hands the next `size` bytes of `image` to `consume(const char*, size_t)`
// piece by piece. False, after the short-read message, when the file ends first.
template <class Size, class Consume>
bool ReadInPieces(std::istream& image, Size size, Consume&& consume) {
  std::vector<char> piece(kPieceBytes);
  std::int64_t total = 0;
  const auto wantedTotal = static_cast<std::int64_t>(size);
  while (total < wantedTotal) {
    const auto want = static_cast<std::streamsize>(
        std::min<std::int64_t>(static_cast<std::int64_t>(piece.size()), wantedTotal - total));
    image.read(piece.data(), want);
    const std::streamsize got = image.gcount();
    consume(piece.data(), static_cast<std::size_t>(got));
    total += got;
    if (got < want) break;
  }
  if (total < wantedTotal) {
    ReportShortRead(size, total);
    return false;
  }
  return true;
}

// The chunk of `chunkSize` bytes at `position` of an image of `size` bytes.
// A start beyond the end is refused (nullopt); a chunk running past the end
// is announced as the last one; a short read is reported and the chunk cut
// to what was read, possibly nothing.
template <class Size>
std::optional<std::vector<std::uint8_t>> ReadChunk(std::istream& image, Size size, int position,
                                                   int chunkSize) {
  if (size < position) {
    std::cerr << "Calculated chunk start of [" << position << "] which is "
              << "larger than the firmware file... aborting update." << std::endl;
    return std::nullopt;
  }
  if (static_cast<std::int64_t>(position) + chunkSize > static_cast<std::int64_t>(size)) {
    std::cerr << "Chunk #[" << position << "] extends past file (length [" << size
              << "]), this should be the last chunk!" << std::endl;
  }
  std::vector<std::uint8_t> chunk(static_cast<std::size_t>(chunkSize), 0);
  image.clear();  // a chunk that ran past the end must not leave the next one empty
  image.seekg(position, std::ios::beg);
  image.read(reinterpret_cast<char*>(chunk.data()), chunkSize);
  const std::streamsize got = image.gcount();
  if (got < chunkSize) {
    ReportShortRead(chunkSize, got);
    chunk.resize(static_cast<std::size_t>(got));
  }
  return chunk;
}

}  // namespace Updater::Image
