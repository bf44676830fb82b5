#include "Sfe/Multicast/TableObject.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "Base/Bindle/Exceptions.h"
#include "Base/Orp/SystemException.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

namespace Sfe::Multicast {

using OrpSharedMem::SharedObject;

TableObject openTableForReading(const std::string& systemName,
                                const std::string& path,
                                const RecordShape& shape) {
  const std::string name = OrpSharedMem::objectName(systemName, path);
  SharedObject object = SharedObject::openForReading(name);
  const std::string which = "shared memory object " + SharedObject::filePath(name) + ": ";
  TableHeader header;
  HeaderFault fault;
  if (!readHeader(object.bytes(), &header, &fault)) {
    switch (fault.kind) {
      case HeaderFault::Kind::kUnfinished:
        throw Orp::SystemException(EAGAIN, which + fault.text);
      case HeaderFault::Kind::kForeign:
        throw std::runtime_error(which + fault.text);
      case HeaderFault::Kind::kDamaged:
        throw Bindle::CorruptionDetectedException(which + fault.text);
    }
  }
  if (header.shape != shape) {
    throw std::runtime_error(which + "it holds records of another kind");
  }
  return TableObject{std::move(object), std::move(header)};
}

}  // namespace Sfe::Multicast
