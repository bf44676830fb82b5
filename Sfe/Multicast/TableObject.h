// A shared memory object that holds a counter table, and what its header says.
#pragma once

#include <string>

#include "Sfe/Multicast/TableLayout.h"
#include "Sfe/OrpSharedMem/SharedObject.h"

namespace Sfe::Multicast {

struct TableObject {
  OrpSharedMem::SharedObject object;
  TableHeader header;
};

// Opens the table of a system name and mount path for reading; its records must be of `shape`.
// Errors: Orp::SystemException (there is none, no permission, EAGAIN while its writer makes it),
// Bindle::CorruptionDetectedException (damaged header), std::runtime_error (another layout).
TableObject openTableForReading(const std::string& systemName,
                                const std::string& path,
                                const RecordShape& shape);

}  // namespace Sfe::Multicast
