#include "common/image_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/file_trust.hpp"
#include "common/log.hpp"

namespace Updater::Image {

File::File() : std::istream(&buffer_) { setstate(std::ios::failbit); }

File::~File() { close(); }

bool File::is_open() const { return buffer_.fd >= 0; }

void File::close() {
  if (buffer_.fd >= 0) ::close(buffer_.fd);
  buffer_.fd = -1;
  buffer_.Drop();
  setstate(std::ios::failbit);
}

Opened File::Open(const std::string& path) {
  close();
  if (path.empty()) return Opened::Missing;
  const std::string directory = Trust::DirectoryOf(path);
  if (const auto why = Trust::DistrustDirectory(directory)) {
    Log::Error("Firmware directory [", directory, "] is ", *why, "; not updating");
    return Opened::Refused;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return Opened::Missing;
  struct stat st {};
  if (const auto why = Trust::DistrustRegularFile(fd, st)) {
    ::close(fd);
    Log::Error("Firmware package [", path, "] is ", *why, "; not updating");
    return Opened::Refused;
  }
  buffer_.fd = fd;
  clear();
  return Opened::Yes;
}

// Reads at the buffer's own file position (pread), so that a seek costs no
// system call: a chunk costs one fstat() for the file's length and one read.
File::Buffer::int_type File::Buffer::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  if (fd < 0) return traits_type::eof();
  ssize_t got;
  do {
    got = ::pread(fd, bytes_, sizeof bytes_, next_);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return traits_type::eof();
  next_ += got;
  setg(bytes_, bytes_, bytes_ + got);
  return traits_type::to_int_type(*gptr());
}

File::Buffer::pos_type File::Buffer::seekoff(off_type offset, std::ios_base::seekdir from,
                                             std::ios_base::openmode) {
  if (fd < 0) return pos_type(off_type(-1));
  off_t base = next_ - (egptr() - gptr());  // where the reader stands
  if (from == std::ios_base::beg) base = 0;
  if (from == std::ios_base::end) {
    struct stat st {};
    if (fstat(fd, &st) != 0) return pos_type(off_type(-1));
    base = st.st_size;
  }
  const off_t at = base + static_cast<off_t>(offset);
  if (at < 0) return pos_type(off_type(-1));
  // Every chunk is read afresh from the file, even one that was buffered.
  setg(bytes_, bytes_, bytes_);
  next_ = at;
  return pos_type(static_cast<off_type>(at));
}

File::Buffer::pos_type File::Buffer::seekpos(pos_type position, std::ios_base::openmode mode) {
  return seekoff(off_type(position), std::ios_base::beg, mode);
}

}  // namespace Updater::Image
