#include "Bess/Plugin.h"

#include <dlfcn.h>
#include <glog/logging.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "Base/Orp/SystemException.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"

// The loaded libraries, and the classes of those that stayed in memory after their unload: their
// static objects are not built again when they are loaded a second time.
struct PluginLibraries {
  struct Library {
    std::string path;
    std::string version;
    void* handle;
  };
  std::vector<Library> loaded;
  std::map<std::string, std::vector<std::unique_ptr<ModuleBuilder>>> resident;

  static PluginLibraries& instance() {
    static PluginLibraries& libraries = *new PluginLibraries;
    return libraries;
  }

  auto find(const std::string& path) {
    return std::find_if(loaded.begin(), loaded.end(),
                        [&path](const Library& library) { return library.path == path; });
  }
};

namespace {

std::string resolved(const std::string& path) {
  std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
  return real == nullptr ? path : real.get();
}

bool isResident(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) {
    return false;
  }
  dlclose(handle);
  return true;
}

// Printable, and not longer than a version is.
std::string versionOf(void* handle) {
  constexpr size_t kMaxBytes = 64;
  const auto* said = static_cast<const char*>(dlsym(handle, "sfePluginVersion"));
  std::string version(said == nullptr ? "" : said, said == nullptr ? 0 : strnlen(said, kMaxBytes));
  std::replace_if(
      version.begin(), version.end(), [](char c) { return c <= ' ' || c > '~'; }, '?');
  return version;
}

}  // namespace

void Plugin::load(const std::string& path) {
  PluginLibraries& libraries = PluginLibraries::instance();
  const std::string real = resolved(path);
  if (libraries.find(real) != libraries.loaded.end()) {
    throw Orp::SystemException(EEXIST, "plug-in " + real + " is loaded");
  }
  ModuleBuilder::setLoadingPlugin(real);
  // A path without a slash would be searched for in the system's library directories.
  const std::string file = real.find('/') == std::string::npos ? "./" + real : real;
  void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  ModuleBuilder::setLoadingPlugin("");
  if (handle == nullptr) {
    const char* reason = dlerror();
    throw Orp::SystemException(EINVAL, reason == nullptr ? "plug-in " + real : reason);
  }
  auto resident = libraries.resident.extract(real);
  if (!resident.empty()) {
    for (auto& builder : resident.mapped()) {
      ModuleBuilder::putBack(std::move(builder));
    }
  }
  const std::string version = versionOf(handle);
  libraries.loaded.push_back({real, version, handle});
  LOG(INFO) << "loaded plug-in " << real << (version.empty() ? "" : ", version ") << version;
}

void Plugin::unload(const std::string& path) {
  PluginLibraries& libraries = PluginLibraries::instance();
  const std::string real = resolved(path);
  auto library = libraries.find(real);
  if (library == libraries.loaded.end()) {
    throw Orp::SystemException(ENOENT, "plug-in " + real + " is not loaded");
  }
  for (const ModuleBuilder* builder : ModuleBuilder::ofPlugin(real)) {
    if (const unsigned n = ModuleGraph::instancesOf(builder); n != 0) {
      throw Orp::SystemException(EBUSY, "plug-in " + real + " is in use: class " +
                                            builder->className() + " has " + std::to_string(n) +
                                            (n == 1 ? " instance" : " instances"));
    }
  }
  // The code of pending callbacks may lie in the library.
  urcu_qsbr_barrier();
  dlclose(library->handle);
  libraries.loaded.erase(library);
  // A library that is gone has deregistered its classes on its way out.
  const bool resident = isResident(real);
  for (const ModuleBuilder* builder : ModuleBuilder::ofPlugin(real)) {
    auto left = ModuleBuilder::takeOut(builder->className());
    if (resident) {
      libraries.resident[real].push_back(std::move(left));
    } else {
      // Destroying it would run code of the library.
      LOG(WARNING) << real << " left its class " << left.release()->className() << " behind";
    }
  }
  LOG(INFO) << "unloaded plug-in " << real;
}

void Plugin::unloadAll() {
  const std::vector<std::string> paths = loaded();
  for (auto it = paths.rbegin(); it != paths.rend(); ++it) {
    unload(*it);
  }
}

std::vector<std::string> Plugin::loaded() {
  std::vector<std::string> paths;
  for (const auto& library : PluginLibraries::instance().loaded) {
    paths.push_back(library.path);
  }
  return paths;
}

std::vector<PluginInfo> Plugin::list() {
  std::vector<PluginInfo> all;
  for (const auto& library : PluginLibraries::instance().loaded) {
    all.push_back({library.path, library.version});
  }
  return all;
}
