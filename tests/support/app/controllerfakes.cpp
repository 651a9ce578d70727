#include "support/app/controllerfakes.h"

namespace qm::test {

QStringList RecordingNotifier::titles() const
{
    QStringList all;
    for (const Post &post : posts)
        all << post.title;
    return all;
}

} // namespace qm::test
