// Access given to named objects that two processes share.
#pragma once

namespace platform {

enum class ObjectAccess {
  kDefault,  // the creating user's default access
  kOpen,     // anyone on the machine may open and use the object
};

}  // namespace platform
