// SPDX-License-Identifier: MIT
// The live view of --watch: on a terminal the value table is redrawn in place after every
// pass, values that changed since the last drawing highlighted, the line health of each
// station at the bottom.
#ifndef MODBUS_ASCII_HOST_WATCH_VIEW_H
#define MODBUS_ASCII_HOST_WATCH_VIEW_H

#include <QElapsedTimer>
#include <QList>
#include <QStringList>

#include "line_health.h"
#include "report.h"

// How a changed value is marked: reverse video, then back to normal.
extern const char kHighlightOn[];
extern const char kHighlightOff[];

// One value as the tables show it: a bit as 0 or 1, a register or 32-bit value in decimal
// and hexadecimal.
QString ValueText(ValueKind kind, quint32 value);

struct ScreenSize {
    int columns = 80;
    int lines = 24;
};

// The lines of one drawing, each cut to the screen's width (escape sequences not counted).
// A value is highlighted when previous holds the same variable with another value there.
QStringList WatchLines(qint64 pass, const QList<VariableValues> &rows,
                       const QList<VariableValues> &previous, const LineHealth &health,
                       ScreenSize size);

class WatchView {
public:
    // --watch with table output on a terminal; elsewhere --watch prints the plain tables.
    static bool wanted(const HostOptions &options);

    // Switches the terminal to its alternate screen; the destructor switches back, so the
    // tables and summary printed after the view stay on the normal screen.
    WatchView();
    ~WatchView();
    WatchView(const WatchView &) = delete;
    WatchView &operator=(const WatchView &) = delete;

    // Draws the screen; a pass that ends sooner than kMinimumRedrawMs after the last drawing
    // is not drawn, so that a fast line does not flood the terminal.
    void draw(qint64 pass, const QList<VariableValues> &rows, const LineHealth &health);
    static constexpr qint64 kMinimumRedrawMs = 100;

private:
    QList<VariableValues> previous_;
    QElapsedTimer lastDrawing_;
};

#endif  // MODBUS_ASCII_HOST_WATCH_VIEW_H
