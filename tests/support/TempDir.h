// A fresh directory under the system's temporary directory, removed with its content when
// the object goes. Every test that touches files works inside one.
#pragma once

#include <string>

class CTempDir {
 public:
  CTempDir();
  ~CTempDir();
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  const std::string& Path() const { return Dir; }
  std::string operator/(const std::string& relative) const { return Dir + "/" + relative; }

 private:
  std::string Dir;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
