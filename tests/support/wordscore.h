#pragma once

#include <QString>
#include <QStringList>

namespace qm::test {

// Lower-case words of `text`, punctuation dropped and hyphens read as spaces, for comparing transcripts.
QStringList words(const QString &text);

// Word error rate: the word-level edit distance over the reference's length.
double wordErrorRate(const QStringList &reference, const QStringList &hypothesis);

} // namespace qm::test
