#include "transcription/whisper/tokens.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace qm::whisper {

const QStringList &languageCodes()
{
    static const QStringList codes =
        QStringLiteral("en zh de es ru ko fr ja pt tr pl ca nl ar sv it id hi fi vi he uk el ms cs ro da hu ta no th "
                       "ur hr bg lt la "
                       "mi ml cy sk te fa lv bn sr az sl kn et mk br eu is hy ne mn bs kk sq sw gl mr pa si km sn yo "
                       "so af oc ka be "
                       "tg sd gu am yi lo uz fo ht ps tk nn mt sa lb my bo tl mg as tt haw ln ha ba jw su yue")
            .split(u' ');
    return codes;
}

SpecialTokens SpecialTokens::forVocabularySize(int vocabularySize)
{
    SpecialTokens t;
    t.vocabularySize = vocabularySize;
    t.multilingual = vocabularySize >= 51865;
    const int shift = t.multilingual ? 1 : 0;
    t.endOfText = 50256 + shift;
    t.startOfTranscript = 50257 + shift;
    t.firstLanguage = t.startOfTranscript + 1;
    // 1501 timestamps close the vocabulary; before them sit six task tokens and the languages.
    t.timestampBegin = vocabularySize - 1501;
    t.noTimestamps = t.timestampBegin - 1;
    t.noSpeech = t.timestampBegin - 2;
    t.startOfPrevious = t.timestampBegin - 3;
    t.startOfLm = t.timestampBegin - 4;
    t.transcribe = t.timestampBegin - 5;
    t.translate = t.timestampBegin - 6;
    t.languageCount = t.multilingual ? std::min<int>(t.translate - t.firstLanguage, int(languageCodes().size())) : 0;
    return t;
}

int SpecialTokens::languageToken(const QString &code) const
{
    const qsizetype index = languageCodes().indexOf(code);
    return index < 0 || index >= languageCount ? -1 : firstLanguage + int(index);
}

QString SpecialTokens::languageCode(int token) const
{
    const int index = token - firstLanguage;
    return index < 0 || index >= languageCount ? QString() : languageCodes().at(index);
}

TokenRanks tokenRanks(const std::vector<std::string> &vocabulary)
{
    TokenRanks ranks;
    for (std::size_t i = 0; i < vocabulary.size(); ++i)
        ranks.emplace(vocabulary[i], int(i));
    return ranks;
}

std::vector<int> encodePiece(const TokenRanks &ranks, const std::string &piece)
{
    std::vector<std::string> parts;
    for (char c : piece)
        parts.emplace_back(1, c);
    // Merge the adjacent pair whose joined bytes rank lowest until no joined pair is a token.
    for (;;) {
        int best = std::numeric_limits<int>::max();
        std::size_t at = 0;
        for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
            const auto found = ranks.find(parts[i] + parts[i + 1]);
            if (found != ranks.end() && found->second < best) {
                best = found->second;
                at = i;
            }
        }
        if (best == std::numeric_limits<int>::max())
            break;
        parts[at] += parts[at + 1];
        parts.erase(parts.begin() + std::ptrdiff_t(at) + 1);
    }
    std::vector<int> ids;
    for (const std::string &part : parts)
        if (const auto found = ranks.find(part); found != ranks.end())
            ids.push_back(found->second);
    return ids;
}

std::vector<int> nonSpeechTokens(const std::vector<std::string> &vocabulary)
{
    QStringList symbols;
    for (QChar c : QStringLiteral("\"#()*+/:;<=>@[\\]^_`{|}~\u300C\u300D\u300E\u300F"))
        symbols.append(c);
    symbols +=
        QStringLiteral("<< >> <<< >>> -- --- -( -[ (' (\" (( )) ((( ))) [[ ]] {{ }} \u266A\u266A \u266A\u266A\u266A")
            .split(u' ');
    const QString notes = QStringLiteral("\u2669\u266A\u266B\u266C\u266D\u266E\u266F");
    for (QChar c : notes)
        symbols.append(c);

    const TokenRanks ranks = tokenRanks(vocabulary);
    std::vector<int> result;
    const auto add = [&](int token) {
        if (std::find(result.begin(), result.end(), token) == result.end())
            result.push_back(token);
    };
    for (const char *lead : {" -", " '"})
        if (const std::vector<int> ids = encodePiece(ranks, lead); !ids.empty())
            add(ids.front());
    for (const QString &symbol : symbols) {
        const bool note = symbol.size() == 1 && notes.contains(symbol);
        for (const QString &form : {symbol, QString(QStringLiteral(" ") + symbol)}) {
            const std::vector<int> ids = encodePiece(ranks, form.toStdString());
            // A symbol split across tokens is only suppressed by its first token when it is a note, whose
            // first byte is shared by nothing else one would want to write.
            if (ids.size() == 1 || (note && !ids.empty()))
                add(ids.front());
        }
    }
    std::sort(result.begin(), result.end());
    return result;
}

QString tokenText(const std::vector<std::string> &vocabulary, std::span<const int> tokens, int endOfText)
{
    std::string bytes;
    for (int token : tokens)
        if (token >= 0 && token < endOfText && std::size_t(token) < vocabulary.size())
            bytes += vocabulary[std::size_t(token)];
    return QString::fromUtf8(bytes.data(), qsizetype(bytes.size()));
}

} // namespace qm::whisper
