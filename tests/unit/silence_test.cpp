// SPDX-License-Identifier: MIT
// The driver reports through return values only: host reads, read builders and the image
// helpers write nothing to stdout or stderr and emit no Qt messages, also when they grow the
// host's arrays or meet addresses and counts at and beyond the ends of the image.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <climits>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

std::vector<std::string> &QtMessages() {
    static std::vector<std::string> messages;
    return messages;
}

void RecordQtMessage(QtMsgType, const QMessageLogContext &, const QString &message) {
    QtMessages().push_back(message.toStdString());
}

// Redirects file descriptors 1 and 2 into a temporary file and installs a Qt message
// handler until Finish(), which returns everything written to the descriptors.
class OutputCapture {
public:
    OutputCapture() {
        QtMessages().clear();
        std::cout.flush();
        std::cerr.flush();
        std::fflush(stdout);
        std::fflush(stderr);
        file_ = std::tmpfile();
        savedOut_ = dup(STDOUT_FILENO);
        savedErr_ = dup(STDERR_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
        dup2(fileno(file_), STDERR_FILENO);
        previous_ = qInstallMessageHandler(&RecordQtMessage);
    }
    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;
    ~OutputCapture() { Finish(); }

    std::string Finish() {
        if (file_ == nullptr) return captured_;
        qInstallMessageHandler(previous_);
        std::cout.flush();
        std::cerr.flush();
        std::fflush(stdout);
        std::fflush(stderr);
        dup2(savedOut_, STDOUT_FILENO);
        dup2(savedErr_, STDERR_FILENO);
        close(savedOut_);
        close(savedErr_);
        std::rewind(file_);
        char buffer[4096];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, file_)) > 0) captured_.append(buffer, n);
        std::fclose(file_);
        file_ = nullptr;
        return captured_;
    }

private:
    std::FILE *file_ = nullptr;
    int savedOut_ = -1;
    int savedErr_ = -1;
    QtMessageHandler previous_ = nullptr;
    std::string captured_;
};

const char *const kAreas[] = {"0x",     "1x",        "3x",        "4x", "3x_bit",
                              "4x_bit", "3x_double", "4x_double", "5x", ""};

// Reads of every area into empty, short, shared and long arrays, at the ends of the image.
void ReadEverywhere(int largeCount) {
    for (const char *name : kAreas) {
        const QString areaName = QString::fromLatin1(name);
        for (int address : {0, 9, 65534, 65535, 65536, 0x1009, 65535 * 16 + 15, INT_MAX, -1}) {
            for (int count : {1, 2, 3, 17, 0, -1}) {
                QByteArray empty;
                GetRegisterData(areaName, address, 3, empty, count);
                QByteArray partly = Bytes({0xEE});
                GetRegisterData(areaName, address, 3, partly, count);
                const QByteArray original = Bytes({1, 2, 3});
                QByteArray shared = original;
                GetRegisterData(areaName, address, 3, shared, count);
                QByteArray longer(64, '\x55');
                GetRegisterData(areaName, address, 3, longer, count);
            }
        }
        QByteArray large;
        GetRegisterData(areaName, 0, 3, large, largeCount);
    }
}

using SilentDriver = DriverTest;

TEST_F(SilentDriver, HostReadsInTheImageEmitNothing) {
    PLC_driver.coilArea[8192] = 0xFF;
    PLC_driver.holdingRegArea[65535] = 0x1234;
    OutputCapture capture;
    ReadEverywhere(70000);
    const std::string written = capture.Finish();
    EXPECT_EQ(written, "");
    EXPECT_TRUE(QtMessages().empty()) << QtMessages().front();
}

TEST_F(SilentDriver, HostReadsOfStationRecordsEmitNothing) {
    info.multiStation = 1;
    FindOrCreateExtendVar(3, QString::fromLatin1("4x"), 9).data = QByteArray();
    FindOrCreateExtendVar(3, QString::fromLatin1("0x"), 8).data = Bytes({0x01});
    FindOrCreateExtendVar(3, QString::fromLatin1("4x"), 0x100).data = Bytes({0x01});
    OutputCapture capture;
    ReadEverywhere(3000);
    const std::string written = capture.Finish();
    EXPECT_EQ(written, "");
    EXPECT_TRUE(QtMessages().empty()) << QtMessages().front();
}

TEST_F(SilentDriver, ReadBuildersEmitNothing) {
    OutputCapture capture;
    for (const char *name : kAreas) {
        for (int station : {0, 1, 0x1F7, -1}) {
            for (int count : {1, 2, 0, -1, 65537, INT_MAX}) {
                RW_VAR var = MakeVar(name, 0x12345, station, count);
                ReadRegister(&var);
                ReadBool(&var);
                ReadAnalog(&var);
            }
        }
    }
    const int queued = PLC_driver.sendList.size();
    const std::string written = capture.Finish();
    EXPECT_EQ(written, "");
    EXPECT_TRUE(QtMessages().empty()) << QtMessages().front();
    EXPECT_EQ(queued, 10 * 4 * 6 * 3);
}

TEST_F(SilentDriver, ImageHelpersAtTheEndsOfTheImageEmitNothing) {
    Modbus_ASCII_Master &d = PLC_driver;
    OutputCapture capture;
    for (int start : {-1, 0, 65535, 65536, 65543, 65544, 65535 * 16 + 15, INT_MAX, INT_MIN}) {
        for (int count : {1, 2, 9, 0, -1}) {
            QByteArray out;
            GetBitFromUC(out, d.coilArea, start, count);
            GetBitFromUS(out, d.holdingRegArea, start, count);
            GetWordFromUS(out, d.inputRegArea, start, count);
            GetWordFromUI(out, d.inputRegArea, start, count);
            QByteArray in = Bytes({1, 2, 3, 4, 5, 6, 7, 8, 9});
            SetBitToUC(start, d.inputBitArea, &in, count);
            SetBitToUS(start, d.inputRegArea, &in, count);
            SetWordToUS(start, d.holdingRegArea, &in, count);
            SetWordToUI(start, d.holdingRegArea, &in, count);
        }
    }
    const std::string written = capture.Finish();
    EXPECT_EQ(written, "");
    EXPECT_TRUE(QtMessages().empty()) << QtMessages().front();
}

TEST(SilenceCapture, SeesWhatIsWrittenToStderrAndQtMessages) {
    OutputCapture capture;
    std::fputs("to stderr", stderr);
    qWarning("a warning");
    const std::string written = capture.Finish();
    EXPECT_EQ(written, "to stderr");
    ASSERT_EQ(QtMessages().size(), 1u);
    EXPECT_EQ(QtMessages().front(), "a warning");
}

}  // namespace
