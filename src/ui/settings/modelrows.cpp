#include "ui/settings/modelrows.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <cmath>

namespace qm::ui {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::ui::ModelRows", text);
}

QString titleFor(const QString &model, bool ownFile)
{
    if (ownFile)
        return QFileInfo(model).fileName();
    if (model.endsWith(QLatin1String(".en")))
        return model + tr(" (English only)");
    return model;
}

} // namespace

QString sizeText(qint64 bytes)
{
    if (bytes <= 0)
        return {};
    const double megabytes = double(bytes) / 1e6;
    if (megabytes < 1000)
        return tr("%1 MB").arg(std::lround(megabytes));
    return tr("%1 GB").arg(megabytes / 1000, 0, 'f', 1);
}

ModelRow modelRow(const ModelFacts &facts, bool inUse, bool followsLanguage, bool ownFile)
{
    ModelRow row;
    row.model = facts.model;
    row.title = titleFor(facts.model, ownFile);
    row.size = sizeText(facts.bytes);
    row.inUse = inUse;
    row.downloading = facts.progress.has_value();

    if (row.downloading) {
        row.percent = int(std::floor(*facts.progress * 100));
        row.status = tr("Downloading… %1%").arg(row.percent);
        row.canCancel = true;
        return row;
    }
    if (facts.installed) {
        if (inUse)
            row.status = followsLanguage ? tr("In use (follows the language)") : tr("In use");
        else
            row.status = ownFile ? tr("Your own model") : tr("Downloaded");
        row.canUse = !inUse;
        // A user's own file is theirs to delete, not ours.
        row.canDelete = !ownFile;
        return row;
    }
    if (ownFile) {
        row.status = tr("Missing: the file or folder is gone");
        return row;
    }
    row.canDownload = true;
    row.canUse = !inUse;
    if (facts.partialBytes > 0 && facts.bytes > 0) {
        const int percent = int(std::floor(100.0 * double(facts.partialBytes) / double(facts.bytes)));
        row.status = tr("Paused at %1%").arg(qBound(0, percent, 99));
        row.downloadText = tr("Resume Download");
        row.canDelete = true;
    } else {
        row.status = inUse ? tr("In use, not downloaded yet") : tr("Not downloaded");
        row.downloadText = tr("Download");
    }
    return row;
}

} // namespace qm::ui
