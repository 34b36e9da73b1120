// A temporary folder for one test, removed with everything in it when the
// object goes away.
#pragma once

#include <string>

namespace skerrow_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Writes a file (creating folders on the way); answers its path.
  std::string write(const std::string& name, const std::string& contents) const;
  std::string read(const std::string& name) const;
  std::string mkdir(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace skerrow_test
