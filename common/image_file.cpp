#include "common/image_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "common/file_trust.hpp"
#include "common/log.hpp"

namespace Updater::Image {

namespace {

// As many links as the kernel follows in one lookup.
constexpr int kMostLinks = 40;

// The file `name` in the directory `dir`, opened without blocking, so that a
// FIFO put in its place cannot hang the run. A link is followed only to
// another name in that same directory: one into a subdirectory or elsewhere
// would let whoever may write on the way choose the bytes flashed. -1 with
// `why` set for such a link; -1 alone (errno) when the file cannot be opened.
int OpenInDirectory(int dir, std::string name, std::optional<std::string>& why) {
  for (int link = 0; link <= kMostLinks; ++link) {
    const int fd = openat(dir, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (fd >= 0 || errno != ELOOP) return fd;  // ELOOP: `name` is a link
    char target[NAME_MAX + 1];
    const ssize_t length = readlinkat(dir, name.c_str(), target, sizeof target);
    if (length < 0) return -1;
    name.assign(target, static_cast<std::size_t>(length));
    if (name.size() > NAME_MAX || name.find('/') != std::string::npos) {
      why = "a link out of the firmware directory";
      return -1;
    }
  }
  return -1;
}

}  // namespace

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
  int dir = -1;
  if (const auto why = Trust::OpenTrustedDirectory(directory, dir)) {
    Log::Error("Firmware directory [", directory, "] is ", *why, "; not updating");
    return Opened::Refused;
  }
  std::optional<std::string> why;
  const int fd = OpenInDirectory(dir, path.substr(path.rfind('/') + 1), why);
  ::close(dir);
  if (fd < 0 && !why) return Opened::Missing;
  struct stat st {};
  if (!why) why = Trust::DistrustRegularFile(fd, st);
  if (why) {
    if (fd >= 0) ::close(fd);
    Log::Error("Firmware package [", path, "] is ", *why, "; not updating");
    return Opened::Refused;
  }
  buffer_.fd = fd;
  clear();
  return Opened::Yes;
}

// Reads at the buffer's own file position (pread), so that a seek costs no
// system call.
File::Buffer::int_type File::Buffer::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  if (fd < 0) return traits_type::eof();
  const ssize_t got = ReadAt(bytes_, sizeof bytes_);
  if (got <= 0) return traits_type::eof();
  setg(bytes_, bytes_, bytes_ + got);
  return traits_type::to_int_type(*gptr());
}

ssize_t File::Buffer::ReadAt(char* to, std::size_t count) {
  ssize_t got;
  do {
    got = ::pread(fd, to, count, next_);
  } while (got < 0 && errno == EINTR);
  if (got > 0) next_ += got;
  return got;
}

// Small reads come out of the buffer, so that the chunks of one buffer's
// worth of image cost one system call between them; a read of a whole
// buffer or more (the checksum's pieces) goes straight to `to`.
std::streamsize File::Buffer::xsgetn(char* to, std::streamsize count) {
  std::streamsize done = 0;
  while (done < count) {
    if (gptr() == egptr()) {
      if (count - done >= static_cast<std::streamsize>(sizeof bytes_)) {
        const ssize_t got = fd < 0 ? -1 : ReadAt(to + done, static_cast<std::size_t>(count - done));
        if (got <= 0) break;
        done += got;
        continue;
      }
      if (traits_type::eq_int_type(underflow(), traits_type::eof())) break;
    }
    const std::streamsize n = std::min<std::streamsize>(count - done, egptr() - gptr());
    std::copy_n(gptr(), n, to + done);
    gbump(static_cast<int>(n));
    done += n;
  }
  return done;
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
  const off_t buffered = next_ - (egptr() - eback());  // the file position of the buffer's first byte
  if (at >= buffered && at <= next_) {
    // A chunk of what was read last needs no read: the descriptor is this run's own.
    setg(eback(), eback() + (at - buffered), egptr());
  } else {
    setg(bytes_, bytes_, bytes_);
    next_ = at;
  }
  return pos_type(static_cast<off_type>(at));
}

File::Buffer::pos_type File::Buffer::seekpos(pos_type position, std::ios_base::openmode mode) {
  return seekoff(off_type(position), std::ios_base::beg, mode);
}

}  // namespace Updater::Image
