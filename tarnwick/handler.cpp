#include <tarnwick/handler.h>

namespace Tarnwick {

uint64_t Handler::Data_Block_Size = 0x20000;

}  // namespace Tarnwick
