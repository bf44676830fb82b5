#include "Nynet/MrtMessage.h"

namespace Nynet {

MrtMessage::~MrtMessage() = default;

}  // namespace Nynet
