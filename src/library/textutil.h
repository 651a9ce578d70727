#pragma once

#include <QString>

namespace qm {

// Removes spaces and tabs (not line breaks) from both ends: the trimming user-typed names and model names get.
inline QString trimSpacesAndTabs(const QString &text)
{
    qsizetype first = 0;
    qsizetype last = text.size();
    auto blank = [](QChar c) { return c == QLatin1Char(' ') || c == QLatin1Char('\t'); };
    while (first < last && blank(text.at(first)))
        ++first;
    while (last > first && blank(text.at(last - 1)))
        --last;
    return text.mid(first, last - first);
}

} // namespace qm
