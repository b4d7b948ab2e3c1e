#include "krdeviceslogging_p.h"

namespace Pal {
namespace Internal {

Q_LOGGING_CATEGORY(lcDevices, "krpal.devices") // GCOVR_EXCL_BR_LINE: the guard of its construction on first use

} // namespace Internal
} // namespace Pal
