#include "krdeviceslogging_p.h"

namespace Pal {
namespace Internal {

Q_LOGGING_CATEGORY(lcDevices, "krpal.devices")

} // namespace Internal
} // namespace Pal
