#include "roundtrip.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    // A real copy, not raw data: the store hands the decoder what QFile::readAll returns.
    const QByteArray json(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString failure = qm::fuzz::transcriptRoundTripFailure(json);
    if (!failure.isEmpty()) {
        std::fprintf(stderr, "transcript round trip: %s\n", qUtf8Printable(failure));
        std::abort();
    }
    return 0;
}
