#include "common/image_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
