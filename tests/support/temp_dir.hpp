// A scratch directory that removes itself.
#pragma once
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace Updater::Testing {

class TempDir {
 public:
  TempDir() : path_((std::filesystem::temp_directory_path() / "fwu-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  std::string Write(const std::string& name,
                    const std::string& contents = "x") const {  // returns the file's path
    std::ofstream(*this / name, std::ios::binary | std::ios::trunc) << contents;
    return *this / name;
  }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {  // all of it; empty when it cannot be read
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace Updater::Testing
