#include "krabstractdeviceproxy.h"

namespace Pal {

KrAbstractDeviceProxy::KrAbstractDeviceProxy(QObject *parent)
    : QObject(parent)
{
}

KrAbstractDeviceProxy::~KrAbstractDeviceProxy() = default;

} // namespace Pal
