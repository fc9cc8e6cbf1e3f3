// SPDX-License-Identifier: MIT
// The serial link over a device of the test's making, as over a connection to a device server:
// a reply in any pieces, frames run together, a device delay covered by the link latency, and
// a device that goes away.
#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QList>
#include <QThread>

#include "serial_link.h"

namespace {

const QByteArray kRequest = ":010300000001FB\r\n";
const QByteArray kAnswer = ":0103020007F3\r\n";
const QByteArray kOtherStation = ":0203020007F2\r\n";

// Hands out, after each write, the pieces it was given, each once its delay has passed since
// the write, one piece per read.
class ScriptedDevice : public LineDevice {
public:
    struct Piece {
        QByteArray bytes;
        int delayMs = 0;
    };
    explicit ScriptedDevice(QList<Piece> pieces, bool loseOnWrite = false)
        : pieces_(std::move(pieces)), loseOnWrite_(loseOnWrite) {}

    QString name() const override { return QStringLiteral("scripted device"); }
    void open() override {}
    void close() override {}
    bool write(const QByteArray &) override {
        written_.start();
        lost_ = loseOnWrite_;
        return !lost_;
    }
    qint64 bytesToWrite() const override { return 0; }
    bool waitForBytesWritten(int) override { return false; }
    qint64 bytesAvailable() override { return due() ? pieces_.first().bytes.size() : 0; }
    QByteArray readAll() override { return due() ? pieces_.takeFirst().bytes : QByteArray(); }
    bool waitForReadyRead(int milliseconds) override {
        const QDeadlineTimer deadline(milliseconds);
        while (!due() && !deadline.hasExpired()) QThread::msleep(1);
        return due();
    }
    bool lost() override { return lost_; }
    QString lostReason() override { return QStringLiteral("the server closed the connection"); }
    QString settingsNote() const override { return QString(); }

private:
    bool due() const {
        return written_.isValid() && !pieces_.isEmpty() &&
               written_.elapsed() >= pieces_.first().delayMs;
    }

    QList<Piece> pieces_;
    bool loseOnWrite_;
    bool lost_ = false;
    QElapsedTimer written_;
};

SerialSettings QuickLine() {
    SerialSettings settings;
    settings.replyTimeoutMs = 100;
    settings.charTimeoutMs = 50;
    settings.quietMs = 30;
    settings.echo = EchoMode::Off;
    return settings;
}

Exchange ExchangeOver(QList<ScriptedDevice::Piece> pieces, const SerialSettings &settings) {
    SerialLink link(settings, std::make_unique<ScriptedDevice>(std::move(pieces)));
    return link.exchange(kRequest, true);
}

TEST(LinkOverDevice, AReplyInSingleCharactersIsOneAnswer) {
    QList<ScriptedDevice::Piece> pieces;
    for (char c : kAnswer) pieces.append({QByteArray(1, c), 0});
    const Exchange exchange = ExchangeOver(pieces, QuickLine());
    EXPECT_EQ(exchange.reply, kAnswer);
    EXPECT_TRUE(exchange.strays.isEmpty());
}

// Another station's frame and the answer in one piece, cut in the middle of the answer.
TEST(LinkOverDevice, FramesRunTogetherAreJudgedOneByOne) {
    const QByteArray wire = kOtherStation + kAnswer;
    const Exchange exchange = ExchangeOver({{wire.left(20), 0}, {wire.mid(20), 0}}, QuickLine());
    EXPECT_EQ(exchange.reply, kAnswer);
    ASSERT_EQ(exchange.strays.size(), 1);
    EXPECT_EQ(exchange.strays[0].kind, FrameKind::OtherStation);
    EXPECT_EQ(exchange.strays[0].frame, kOtherStation);
}

// An answer 150 ms after the request: past a reply time-out of 100 ms, within it once the
// link's 100 ms are added.
TEST(LinkOverDevice, TheLinkLatencyLengthensTheReplyDeadline) {
    SerialSettings settings = QuickLine();
    EXPECT_TRUE(ExchangeOver({{kAnswer, 150}}, settings).reply.isEmpty());
    settings.linkLatencyMs = 100;
    EXPECT_EQ(ExchangeOver({{kAnswer, 150}}, settings).reply, kAnswer);
}

TEST(LinkOverDevice, ADeviceThatGoesAwayIsALostPortWithItsReason) {
    SerialLink link(QuickLine(),
                    std::make_unique<ScriptedDevice>(QList<ScriptedDevice::Piece>{}, true));
    try {
        link.exchange(kRequest, true);
        FAIL() << "the exchange went on without the device";
    } catch (const PortLost &lost) {
        EXPECT_EQ(lost.reason, QStringLiteral("the server closed the connection"));
    }
}

}  // namespace
