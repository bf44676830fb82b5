// Mounts shared-memory entities by path: one manager per system name and mode in a process.
//
// An entity is what a path leads to, for instance a counter table. Every Ptr that getEntity() hands
// out is a handle on the one entity of that path; when the last handle goes, the entity is
// unmounted and its shared memory object removed (by a manager that writes).
//
// Threads    : every operation may be called by any thread; each may block for a mount or unmount.
// Ownership  : each doMount() leaves one reference with the manager, so that the entity is there
// for
//              the getEntity() that follows. Each getEntity() takes one such reference over, if any
//              is left; unmount() gives one back when no getEntity() came.
// Errors     : std::invalid_argument (unknown type, wrong mount information),
//              Orp::SystemException (the object cannot be made or opened),
//              Bindle::CorruptionDetectedException (a reader found a damaged object).
// Invariants :
//   (1) at most one entity of a path and a manager exists at a time; two mounts share it.
//   (2) after the last handle of an entity is gone nothing is left of it in /dev/shm.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Base/Orp/Ptr.h"
#include "Sfe/OrpPell/MountInfo.h"

namespace OrpSharedMem {

struct MountRequest {
  std::string systemName;
  std::string path;
  OrpPell::MountInfo info;
  bool readOnly;
};

// How entities of one type come to be. `mount` makes what is behind the handles (its destructor
// unmounts), `handle` makes a new handle on it.
struct EntityType {
  std::function<std::shared_ptr<void>(const MountRequest&)> mount;
  std::function<Orp::Ptr<Orp::PtrInterface>(std::shared_ptr<void>)> handle;
};

// Makes a type known under its name. Returns: true; a second type of one name is fatal.
bool registerEntityType(const std::string& typeName, EntityType type);

// The system name of the environment variable SYSNAME; "ny" when it is unset or empty.
std::string systemNameFromEnv();

// Name of the shared memory object of a path: "/sfe.<system name><path with / as .>".
// Bytes of the system name that a file name or the separator '.' cannot hold are written as %XX.
std::string objectName(const std::string& systemName, const std::string& path);

// Writes '%', '.', '/', space and control characters as %XX, and back.
std::string escapeComponent(const std::string& text);
std::string unescapeComponent(const std::string& text);

class EntityManager : public Orp::PtrInterface {
 public:
  EntityManager(std::string systemName, bool readOnly);

  // Mounts `path`; when it is mounted already, shares it.
  // Errors: also std::invalid_argument when it is mounted with another type or size.
  void doMount(const std::string& path,
               const std::string& typeName,
               const OrpPell::MountInfo& info);

  // Returns: a handle on the entity of `path`; null when nothing is mounted there.
  Orp::Ptr<Orp::PtrInterface> getEntity(const std::string& path);

  // Gives up the reference of one doMount(), if a getEntity() has not taken it over.
  void unmount(const std::string& path);

  const std::string& systemName() const { return systemName_; }
  bool readOnly() const { return readOnly_; }

 private:
  struct Mount {
    std::string typeName;
    OrpPell::MountInfo info{0};
    std::function<Orp::Ptr<Orp::PtrInterface>(std::shared_ptr<void>)> handle;
    std::shared_ptr<void> entity;   // what the type's mount() made
    std::weak_ptr<void> users;      // expired: the last handle is gone, the unmount is under way
    std::shared_ptr<void> pending;  // the manager's own reference, while pendingCount > 0
    unsigned pendingCount = 0;      // doMount() calls that nothing has taken over yet
  };

  void makeMount(const std::string& path,
                 const std::string& typeName,
                 const OrpPell::MountInfo& info);
  static std::shared_ptr<void> takePending(Mount* mount);
  void lastUserGone(const std::string& path) noexcept;

  const std::string systemName_;
  const bool readOnly_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable unmounted_;
  std::map<std::string, Mount> mounts_;
};

// Returns: the process's manager of that system name and mode. It lives until the process ends.
Orp::Ptr<EntityManager> getEntityManager(const std::string& systemName, bool readOnly);

}  // namespace OrpSharedMem
