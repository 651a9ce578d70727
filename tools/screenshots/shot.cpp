#include "shot.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QIcon>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>
#include <QTextStream>
#include <QWidget>

namespace qm::shots {

namespace {

QPalette darkPalette()
{
    QPalette p;
    const QColor window(0x2b, 0x2b, 0x2b), base(0x1e, 0x1e, 0x1e), text(0xee, 0xee, 0xee);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::ToolTipBase, base);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::PlaceholderText, QColor(0x90, 0x90, 0x90));
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, QColor(0x35, 0x35, 0x35));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::BrightText, Qt::red);
    p.setColor(QPalette::Highlight, QColor(0x35, 0x84, 0xe4));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Link, QColor(0x78, 0xae, 0xed));
    p.setColor(QPalette::Mid, QColor(0x45, 0x45, 0x45));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x80));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x80));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x80, 0x80));
    return p;
}

void settle(int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms)
        QApplication::processEvents(QEventLoop::AllEvents, 10);
}

} // namespace

int run(int argc, char *argv[],
        const std::function<void(Theme, const std::function<void(QWidget *, const QString &)> &)> &scenes)
{
    QApplication app(argc, argv);
    const QString outdir = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("docs/screenshots");
    QDir().mkpath(outdir);
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    // What a GNOME desktop's theme would answer; the bare X server here has no theme of its own.
    QIcon::setThemeName(QStringLiteral("Adwaita"));
    int failures = 0;
    for (Theme theme : {Theme::light, Theme::dark}) {
        QApplication::setPalette(theme == Theme::dark ? darkPalette() : QApplication::style()->standardPalette());
        const QString suffix = theme == Theme::dark ? QStringLiteral("-dark") : QStringLiteral("-light");
        scenes(theme, [&](QWidget *widget, const QString &name) {
            widget->show();
            settle(300);
            const QString path = QDir(outdir).filePath(name + suffix + QStringLiteral(".png"));
            if (!widget->grab().save(path)) {
                QTextStream(stderr) << "couldn't write " << path << '\n';
                ++failures;
            }
        });
    }
    return failures == 0 ? 0 : 1;
}

} // namespace qm::shots
