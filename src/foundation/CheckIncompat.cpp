#include "Tarvo/CheckIncompat.h"

#include <dlfcn.h>

#include "Tarvo/Assert.h"

std::uint32_t platformLibPresenceFlag = Tarvo::PLATFORM_LIB_FLAG_TARVO;

namespace Tarvo {

void checkIncompat() {
  TARVO_CHECK(platformLibPresenceFlag == Tarvo::PLATFORM_LIB_FLAG_TARVO &&
              "a library incompatible with Tarvo has been loaded");
  // Find this library by the address of a static object: it cannot be interposed by another
  // library.
  static const char ownAddress = 0;
  Dl_info info;
  if (dladdr(&ownAddress, &info) != 0 && info.dli_fname != nullptr) {
    dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
  }
}

}  // namespace Tarvo
