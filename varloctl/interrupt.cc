#include "varloctl/interrupt.h"

#include "varloctl/ctl_error.h"

namespace varloctl {

void Interrupt::check() {
  if (raised()) throw CtlError(kInterrupted, "interrupted");
}

}  // namespace varloctl
