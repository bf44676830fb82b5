#include "Sfe/OrpSharedMem/EntityManager.h"

#include <glog/logging.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace OrpSharedMem {
namespace {

// Both registries live until the process ends: handles may be dropped by static destructors.
struct Types {
  std::mutex mutex;
  std::map<std::string, EntityType> byName;
};
Types& types() {
  static auto* const all = new Types;
  return *all;
}

EntityType findType(const std::string& typeName) {
  Types& all = types();
  const std::lock_guard lock(all.mutex);
  const auto found = all.byName.find(typeName);
  if (found == all.byName.end()) {
    throw std::invalid_argument("there is no shared-memory entity type \"" + typeName + "\"");
  }
  return found->second;
}

bool needsEscape(char c) {
  return c == '%' || c == '.' || c == '/' || static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

bool registerEntityType(const std::string& typeName, EntityType type) {
  Types& all = types();
  const std::lock_guard lock(all.mutex);
  const bool added = all.byName.emplace(typeName, std::move(type)).second;
  CHECK(added) << "entity type " << typeName << " registered twice";
  return true;
}

std::string systemNameFromEnv() {
  const char* name = std::getenv("SYSNAME");
  return name == nullptr || *name == '\0' ? "ny" : name;
}

std::string escapeComponent(const std::string& text) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string escaped;
  for (const char c : text) {
    if (needsEscape(c)) {
      const auto byte = static_cast<unsigned char>(c);
      escaped += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string unescapeComponent(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool escape = text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
                        hexValue(text[i + 2]) >= 0;
    if (escape) {
      plain += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

std::string objectName(const std::string& systemName, const std::string& path) {
  std::string name = "/sfe." + escapeComponent(systemName);
  for (const char c : path) {
    name += c == '/' ? '.' : c;
  }
  return name;
}

EntityManager::EntityManager(std::string systemName, bool readOnly)
    : systemName_(std::move(systemName)), readOnly_(readOnly) {}

void EntityManager::doMount(const std::string& path,
                            const std::string& typeName,
                            const OrpPell::MountInfo& info) {
  if (path.size() < 2 || path.front() != '/') {
    throw std::invalid_argument("mount path \"" + path + "\" does not begin with / and a name");
  }
  std::unique_lock lock(mutex_);
  for (;;) {
    const auto found = mounts_.find(path);
    if (found == mounts_.end()) {
      makeMount(path, typeName, info);
      return;
    }
    Mount& mount = found->second;
    if (std::shared_ptr<void> users = mount.users.lock()) {
      if (mount.typeName != typeName || !(mount.info == info)) {
        lock.unlock();  // dropping `users` may be the last use, which takes the mutex
        users.reset();
        throw std::invalid_argument(path + " is mounted already as another type or size");
      }
      mount.pending = std::move(users);
      ++mount.pendingCount;
      return;
    }
    unmounted_.wait(lock);  // its last user is gone; wait until it is out of the way
  }
}

// Requires: mutex_ is held and nothing is mounted at `path`.
void EntityManager::makeMount(const std::string& path,
                              const std::string& typeName,
                              const OrpPell::MountInfo& info) {
  const EntityType type = findType(typeName);
  if (info.sharedMemType() != 0) {
    throw std::invalid_argument("there is no shared memory of type " +
                                std::to_string(info.sharedMemType()));
  }
  std::shared_ptr<void> entity = type.mount(MountRequest{systemName_, path, info, readOnly_});
  Mount& mount = mounts_[path];
  mount.typeName = typeName;
  mount.info = info;
  mount.handle = type.handle;
  mount.entity = std::move(entity);
  // Users share this one; managers live as long as the process, so `this` outlives it.
  mount.pending =
      std::shared_ptr<void>(mount.entity.get(), [this, path](void*) { lastUserGone(path); });
  mount.users = mount.pending;
  mount.pendingCount = 1;
}

void EntityManager::lastUserGone(const std::string& path) noexcept {
  const std::lock_guard lock(mutex_);
  mounts_.erase(path);  // unmounts: the entity's only reference
  unmounted_.notify_all();
}

Orp::Ptr<Orp::PtrInterface> EntityManager::getEntity(const std::string& path) {
  std::shared_ptr<void> users;
  std::function<Orp::Ptr<Orp::PtrInterface>(std::shared_ptr<void>)> handle;
  {
    const std::lock_guard lock(mutex_);
    const auto found = mounts_.find(path);
    if (found == mounts_.end()) {
      return nullptr;
    }
    users = found->second.users.lock();
    const std::shared_ptr<void> taken = takePending(&found->second);  // `users` holds on
    handle = found->second.handle;
  }
  return users == nullptr ? nullptr : handle(std::move(users));
}

void EntityManager::unmount(const std::string& path) {
  std::shared_ptr<void> pending;  // dropped after the mutex: it may be the last one
  const std::lock_guard lock(mutex_);
  if (const auto found = mounts_.find(path); found != mounts_.end()) {
    pending = takePending(&found->second);
  }
}

// Returns: the manager's reference when it was left by one doMount() only, for the caller to drop.
std::shared_ptr<void> EntityManager::takePending(Mount* mount) {
  if (mount->pendingCount == 0 || --mount->pendingCount > 0) {
    return nullptr;
  }
  return std::move(mount->pending);
}

Orp::Ptr<EntityManager> getEntityManager(const std::string& systemName, bool readOnly) {
  using Managers = std::map<std::pair<std::string, bool>, Orp::Ptr<EntityManager>>;
  static std::mutex mutex;
  static auto* const managers = new Managers;
  const std::lock_guard lock(mutex);
  Orp::Ptr<EntityManager>& manager = (*managers)[{systemName, readOnly}];
  if (manager == nullptr) {
    manager = Orp::makePtr<EntityManager>(systemName, readOnly);
  }
  return manager;
}

}  // namespace OrpSharedMem
