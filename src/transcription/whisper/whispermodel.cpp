#include "transcription/whisper/whispermodel.h"

#include <QFileInfo>

#include <functional>
#include <numeric>

namespace qm::whisper {

std::int64_t Tensor::elementCount() const
{
    return std::accumulate(shape.begin(), shape.end(), std::int64_t{1}, std::multiplies<>());
}

const Tensor *Model::tensor(std::string_view name) const
{
    const auto found = tensors.find(std::string(name));
    return found == tensors.end() ? nullptr : &found->second;
}

expected<Model, ModelError> loadModel(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return unexpected(ModelError{QStringLiteral("The model file %1 doesn't exist.").arg(path)});
    return info.isDir() ? loadCTranslate2Model(path) : loadGgmlModel(path);
}

} // namespace qm::whisper
