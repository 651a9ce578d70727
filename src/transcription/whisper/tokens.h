#pragma once

#include <QString>
#include <QStringList>

#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace qm::whisper {

// The special tokens of a model, placed after its text tokens. English-only models have one fewer text
// token, so every special sits one lower; multilingual models have one language token per language code.
struct SpecialTokens {
    bool multilingual = false;
    int vocabularySize = 0;
    int endOfText = 0;
    int startOfTranscript = 0;
    int firstLanguage = 0;
    int languageCount = 0;
    int translate = 0;
    int transcribe = 0;
    int startOfLm = 0;
    int startOfPrevious = 0;
    int noSpeech = 0;
    int noTimestamps = 0;
    int timestampBegin = 0; // 0.00 s; each later id is 0.02 s more

    static SpecialTokens forVocabularySize(int vocabularySize);

    // The language token for a code such as "en" or "he"; −1 when the model has none for it.
    int languageToken(const QString &code) const;
    // The code of a language token; empty for any other token.
    QString languageCode(int token) const;
};

// Whisper's language codes in token order ("en", "zh", "de", …).
const QStringList &languageCodes();

// The tokens of punctuation and symbols that are never speech (music notes, brackets, "--" and the like),
// found by encoding each symbol with the model's own vocabulary; tokens the model lacks are left out.
std::vector<int> nonSpeechTokens(const std::vector<std::string> &vocabulary);

// Token bytes → id, for encoding.
using TokenRanks = std::unordered_map<std::string, int>;
TokenRanks tokenRanks(const std::vector<std::string> &vocabulary);

// Byte-pair encoding of one piece of text (no splitting into words first): adjacent parts are joined lowest
// id first while the joined bytes are a token.
std::vector<int> encodePiece(const TokenRanks &ranks, const std::string &piece);

// The text the tokens stand for: their bytes joined, read as UTF-8. Special tokens contribute nothing.
QString tokenText(const std::vector<std::string> &vocabulary, std::span<const int> tokens, int endOfText);

} // namespace qm::whisper
