#pragma once

#include <QLoggingCategory>

namespace Pal {
namespace Internal {

/// The devices library's messages: a device lost and back, a setting the driver refused.
Q_DECLARE_LOGGING_CATEGORY(lcDevices)

} // namespace Internal
} // namespace Pal
