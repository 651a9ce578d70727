#include "capture/mediaprocessorerror.h"

#include <QCoreApplication>

namespace qm {

QString MediaProcessorError::description() const
{
    if (kind == Kind::noInput)
        return QCoreApplication::translate("MediaProcessor", "There is no audio in this recording.");
    return QCoreApplication::translate("MediaProcessor", "Processing failed: ") + message;
}

} // namespace qm
