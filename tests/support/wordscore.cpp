#include "support/wordscore.h"

#include <QRegularExpression>

#include <algorithm>
#include <vector>

namespace qm::test {

QStringList words(const QString &text)
{
    static const QRegularExpression notWord(QStringLiteral("[^a-z' ]"));
    return text.toLower().replace(u'-', u' ').remove(notWord).split(u' ', Qt::SkipEmptyParts);
}

double wordErrorRate(const QStringList &reference, const QStringList &hypothesis)
{
    std::vector<int> previous(std::size_t(hypothesis.size()) + 1), current(previous.size());
    for (std::size_t j = 0; j < previous.size(); ++j)
        previous[j] = int(j);
    for (qsizetype i = 1; i <= reference.size(); ++i) {
        current[0] = int(i);
        for (qsizetype j = 1; j <= hypothesis.size(); ++j) {
            const int substitution = previous[std::size_t(j - 1)] + (reference[i - 1] == hypothesis[j - 1] ? 0 : 1);
            current[std::size_t(j)] =
                std::min({substitution, previous[std::size_t(j)] + 1, current[std::size_t(j - 1)] + 1});
        }
        std::swap(previous, current);
    }
    return reference.isEmpty() ? 0.0 : double(previous.back()) / double(reference.size());
}

} // namespace qm::test
