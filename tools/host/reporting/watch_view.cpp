// SPDX-License-Identifier: MIT
// Drawing the live view: screen lines with highlighted changes, and the terminal control
// sequences around them.
#include "watch_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <QTime>
#include <algorithm>
#include <cstdio>

const char kHighlightOn[] = "\x1b[7m";
const char kHighlightOff[] = "\x1b[0m";

namespace {

const char kAlternateScreen[] = "\x1b[?1049h\x1b[?25l";  // and the cursor hidden
const char kNormalScreen[] = "\x1b[?25h\x1b[?1049l";
const char kHome[] = "\x1b[H";
const char kClearToEndOfLine[] = "\x1b[K";
const char kClearToEndOfScreen[] = "\x1b[J";

// A piece of a screen line, shown highlighted or not.
struct Piece {
    QString text;
    bool highlighted = false;
};

// Joins pieces, cut after columns visible characters.
QString Render(const QList<Piece> &pieces, int columns) {
    QString line;
    int left = columns;
    for (const Piece &piece : pieces) {
        if (left <= 0) break;
        const QString text = piece.text.left(left);
        left -= text.size();
        line += piece.highlighted
                    ? QLatin1String(kHighlightOn) + text + QLatin1String(kHighlightOff)
                    : text;
    }
    return line;
}

QString RowHead(const QString &name, const QString &station, const QString &area,
                const QString &address) {
    return name.leftJustified(20) + QLatin1Char(' ') + station.rightJustified(7) +
           QLatin1Char(' ') + area.leftJustified(10) + QLatin1Char(' ') + address.leftJustified(9) +
           QLatin1Char(' ');
}

// The values the same variable showed in the last drawing, or none.
QList<quint32> PreviousValues(const VariableValues &row, const QList<VariableValues> &previous) {
    for (const VariableValues &old : previous) {
        if (old.variable.name == row.variable.name &&
            old.variable.station == row.variable.station) {
            return old.confirmed ? old.values : QList<quint32>();
        }
    }
    return {};
}

QList<Piece> RowPieces(const VariableValues &row, const QList<VariableValues> &previous) {
    const QList<quint32> old = PreviousValues(row, previous);
    const ValueKind kind = KindOfArea(row.variable.area);
    QList<Piece> pieces{{RowHead(row.variable.name, QString::number(row.variable.station),
                                 row.variable.area, row.variable.addressText)}};
    if (!row.confirmed) {
        pieces.append({QStringLiteral("?")});
        return pieces;
    }
    for (int i = 0; i < row.values.size(); ++i) {
        if (i > 0) pieces.append({QStringLiteral(" ")});
        const bool changed = i < old.size() && old[i] != row.values[i];
        pieces.append({ValueText(kind, row.values[i]), changed});
    }
    return pieces;
}

ScreenSize TerminalSize() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

void Print(const QString &text) {
    std::fputs(text.toUtf8().constData(), stdout);
}

}  // namespace

QString ValueText(ValueKind kind, quint32 value) {
    if (kind == ValueKind::Bit) return QString::number(value);
    const int digits = kind == ValueKind::Register ? 4 : 8;
    return QStringLiteral("%1 (0x%2)")
        .arg(value)
        .arg(QString::number(value, 16).toUpper().rightJustified(digits, QLatin1Char('0')));
}

QStringList WatchLines(qint64 pass, const QList<VariableValues> &rows,
                       const QList<VariableValues> &previous, const LineHealth &health,
                       ScreenSize size) {
    QStringList bottom{QString()};
    for (auto it = health.stations().cbegin(); it != health.stations().cend(); ++it) {
        bottom.append(Render({{HealthLine(it.key(), it.value())}}, size.columns));
    }
    QStringList lines{
        Render({{QStringLiteral("modbus-ascii-host --watch  pass %1  %2  (Ctrl-C ends)")
                     .arg(pass)
                     .arg(QTime::currentTime().toString(QStringLiteral("HH:mm:ss")))}},
               size.columns),
        Render({{RowHead(QStringLiteral("name"), QStringLiteral("station"), QStringLiteral("area"),
                         QStringLiteral("address")) +
                 QStringLiteral("values")}},
               size.columns)};
    // Rows that do not fit above the health lines are counted, not drawn.
    const int room = std::max(1, size.lines - static_cast<int>(lines.size() + bottom.size()));
    const bool cut = rows.size() > room;
    const int shown = cut ? room - 1 : rows.size();
    for (int i = 0; i < shown; ++i)
        lines.append(Render(RowPieces(rows[i], previous), size.columns));
    if (cut) {
        lines.append(Render({{QStringLiteral("... %1 more variables: enlarge the window")
                                  .arg(rows.size() - shown)}},
                            size.columns));
    }
    return lines + bottom;
}

bool WatchView::wanted(const HostOptions &options) {
    return options.watch && options.format == OutputFormat::Table && isatty(STDOUT_FILENO) == 1;
}

WatchView::WatchView() {
    Print(QLatin1String(kAlternateScreen) + QLatin1String(kHome) +
          QStringLiteral("modbus-ascii-host --watch: waiting for the first pass (Ctrl-C ends)"));
    std::fflush(stdout);
}

WatchView::~WatchView() {
    Print(QLatin1String(kNormalScreen));
    std::fflush(stdout);
}

void WatchView::draw(qint64 pass, const QList<VariableValues> &rows, const LineHealth &health) {
    if (lastDrawing_.isValid() && lastDrawing_.elapsed() < kMinimumRedrawMs) return;
    lastDrawing_.start();
    QString screen = QLatin1String(kHome);
    for (const QString &line : WatchLines(pass, rows, previous_, health, TerminalSize())) {
        screen += line + QLatin1String(kClearToEndOfLine) + QStringLiteral("\r\n");
    }
    screen.chop(2);  // no line feed after the last line, which would scroll a full screen
    Print(screen + QLatin1String(kClearToEndOfScreen));
    std::fflush(stdout);
    previous_ = rows;
}
