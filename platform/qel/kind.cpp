#include "platform/qel/kind.h"

namespace ryx::platform::kinds {

void skipValue(Decoder& d, Wire wire) {
  if (wire == Wire::varint)
    d.varint();
  else
    d.text();
}

}  // namespace ryx::platform::kinds
