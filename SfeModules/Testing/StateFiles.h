// Reads state files as FUSE would, without a mount.
#pragma once

#define FUSE_USE_VERSION 26
#include <fuse.h>
#include <sys/stat.h>

#include <string>

#include "SfeModules/Fuse.h"

namespace SfeModules {

inline bool stateFileExists(const std::string& name) {
  struct stat attributes {};
  return fuseOperations().getattr(name.c_str(), &attributes) == 0;
}

// The text of the file; "<error n>" when it cannot be read.
inline std::string stateFile(const std::string& name) {
  std::string text(1 << 20, '\0');
  fuse_file_info info{};
  const int bytes = fuseOperations().read(name.c_str(), text.data(), text.size(), 0, &info);
  if (bytes < 0) {
    return "<error " + std::to_string(bytes) + ">";
  }
  text.resize(static_cast<size_t>(bytes));
  return text;
}

// The size that every file is reported to have.
inline int64_t reportedFileSize() {
  constexpr const char* kProbe = "/probe";
  fuseRegister(kProbe, [] { return std::string(); });
  struct stat attributes {};
  fuseOperations().getattr(kProbe, &attributes);
  fuseDeRegister(kProbe);
  return attributes.st_size;
}

}  // namespace SfeModules
