#include "network/dcmnetwork_p.h"

#include <QByteArray>
#include <QtGlobal>

namespace kestrel::internal {

void disableNagleForDcmtk()
{
    if (qEnvironmentVariableIsEmpty("TCP_NODELAY"))
        qputenv("TCP_NODELAY", "1");
}

} // namespace kestrel::internal
