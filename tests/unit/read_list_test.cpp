// SPDX-License-Identifier: MIT
// Rebuild of the cyclic read list: merging, cutting, station groups and the request fields.
#include <gtest/gtest.h>

#include <QList>
#include <QMultiMap>
#include <QString>
#include <climits>
#include <random>
#include <vector>

#include "driver_fixture.h"

namespace {

Keyboard MakeKey(const char *areaName, int address, int length, int station = 0,
                 const char *auxName = "") {
    Keyboard key;
    key.area = QString::fromLatin1(areaName);
    key.address = address;
    key.length = length;
    key.station = static_cast<unsigned char>(station);
    key.auxName = QString::fromLatin1(auxName);
    return key;
}

// What a test expects of one request in readList.
struct ExpectedRequest {
    int address;
    int count;
    int station;
    const char *area;
};

void ExpectReadList(const std::vector<ExpectedRequest> &expected) {
    const QList<RW_VAR> &list = PLC_driver.readList;
    ASSERT_EQ(list.size(), static_cast<int>(expected.size()));
    for (int i = 0; i < list.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(list.at(i).address, expected[i].address);
        EXPECT_EQ(list.at(i).count, expected[i].count);
        EXPECT_EQ(list.at(i).station, expected[i].station);
        EXPECT_EQ(list.at(i).area, QString::fromLatin1(expected[i].area));
    }
}

class ReadListTest : public DriverTest {
protected:
    int Rebuild(QList<Keyboard> vars) { return ReCreatReadVarList(&vars); }
};

TEST_F(ReadListTest, EmptyInputClearsTheListButKeepsCursorAndCycleMark) {
    RW_VAR old = MakeVar("4x", 0, 1, 1);
    AddListReadVar(&old);
    PLC_driver.readCursor = 3;
    info.cycleDone = 1;
    EXPECT_EQ(Rebuild({}), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_EQ(PLC_driver.readCursor, 3);
    EXPECT_EQ(info.cycleDone, 1);
}

TEST_F(ReadListTest, RebuildStartsAFreshCycle) {
    PLC_driver.readCursor = 3;
    info.cycleDone = 1;
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 1)}), 1);
    EXPECT_EQ(PLC_driver.readCursor, 0);
    EXPECT_EQ(info.cycleDone, 0);
}

TEST_F(ReadListTest, RebuildReplacesTheWholeList) {
    RW_VAR old = MakeVar("3x", 500, 1, 1);
    AddListReadVar(&old);
    AddListReadVar(&old);
    EXPECT_EQ(Rebuild({MakeKey("4x", 7, 2)}), 1);
    ExpectReadList({{7, 2, 1, "4x"}});
}

TEST_F(ReadListTest, RequestsCarryTheDriversOwnFields) {
    Keyboard key = MakeKey("4x", 40, 3, 9, "boiler.temp");
    EXPECT_EQ(Rebuild({key}), 1);
    const RW_VAR &request = PLC_driver.readList.first();
    EXPECT_EQ(request.ownerType, 0);
    EXPECT_EQ(request.ownerId, -1);
    EXPECT_EQ(request.direction, 0);
    EXPECT_EQ(request.hostParamA, 21);
    EXPECT_EQ(request.hostParamB, 22);
    EXPECT_EQ(request.hostParamC, 0);
    EXPECT_EQ(request.hostParamD, 0);
    EXPECT_EQ(request.area, QStringLiteral("4x"));
    EXPECT_EQ(request.auxName, QStringLiteral("boiler.temp"));
    EXPECT_EQ(request.address, 40);
    EXPECT_EQ(request.station, 1);  // the default station, not the variable's 9
    EXPECT_EQ(request.count, 3);
    EXPECT_EQ(request.bitWriteMark, 0);
    EXPECT_EQ(request.extraB, 0);
    EXPECT_TRUE(request.value.isEmpty());
}

TEST_F(ReadListTest, GapsBetweenHoldingRegistersAreRead) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 10), MakeKey("4x", 100, 10)}), 1);
    ExpectReadList({{0, 110, 1, "4x"}});
}

TEST_F(ReadListTest, FrameLimitKeepsDistantRegistersApart) {
    info.maxFrameWords = 100;
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 10), MakeKey("4x", 100, 10)}), 2);
    ExpectReadList({{0, 10, 1, "4x"}, {100, 10, 1, "4x"}});
}

TEST_F(ReadListTest, LongVariableIsCutAtTheFrameLimit) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 1000, 300)}), 3);
    ExpectReadList({{1000, 125, 1, "4x"}, {1125, 125, 1, "4x"}, {1250, 50, 1, "4x"}});
}

TEST_F(ReadListTest, ExactMultipleOfTheFrameLimitGivesFullPieces) {
    EXPECT_EQ(Rebuild({MakeKey("3x", 0, 250)}), 2);
    ExpectReadList({{0, 125, 1, "3x"}, {125, 125, 1, "3x"}});
}

// A longer length would only repeat the 16-bit addresses on the wire, and would make the
// list grow with the host's number.
TEST_F(ReadListTest, LengthBeyondAWholeTableIsCutAtTheTableAndOneRegister) {
    info.maxFrameWords = 30000;
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, INT_MAX)}), 3);
    ExpectReadList({{0, 30000, 1, "4x"}, {30000, 30000, 1, "4x"}, {60000, 5537, 1, "4x"}});
}

TEST_F(ReadListTest, BitSpanOfAWholeTableKeepsItsExtraRegister) {
    info.maxFrameWords = 70000;
    for (int length : {1048576, INT_MAX}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(Rebuild({MakeKey("4x_bit", 0, length)}), 1);
        ExpectReadList({{0, 65537, 1, "4x_bit"}});
    }
}

TEST_F(ReadListTest, BitSpanEndingOnARegisterBoundaryReadsOneRegisterMore) {
    EXPECT_EQ(Rebuild({MakeKey("4x_bit", 5 * 16 + 15, 1)}), 1);
    ExpectReadList({{5, 2, 1, "4x_bit"}});
}

TEST_F(ReadListTest, BitInsideARegisterReadsItsRegister) {
    EXPECT_EQ(Rebuild({MakeKey("3x_bit", 7 * 16 + 3, 4)}), 1);
    ExpectReadList({{7, 1, 1, "3x_bit"}});
}

TEST_F(ReadListTest, EmptyBitSpanStillGivesARequestOfNothing) {
    EXPECT_EQ(Rebuild({MakeKey("3x_bit", 3 * 16, 0)}), 1);
    ExpectReadList({{3, 0, 1, "3x_bit"}});
}

TEST_F(ReadListTest, NearbyCoilsShareOneByteRequest) {
    info.maxFrameWords = 10;
    EXPECT_EQ(Rebuild({MakeKey("0x", 3, 1), MakeKey("0x", 20, 1)}), 1);
    ExpectReadList({{0, 3, 1, "0x"}});
}

TEST_F(ReadListTest, MixedUnitEndLetsALaterCoilShrinkTheRequest) {
    info.maxFrameWords = 10;
    EXPECT_EQ(Rebuild({MakeKey("0x", 0, 64), MakeKey("0x", 30, 1)}), 1);
    ExpectReadList({{0, 4, 1, "0x"}});
}

TEST_F(ReadListTest, LongCoilVariableIsCutIntoByteRequests) {
    info.maxFrameWords = 10;  // 80 coils per request
    EXPECT_EQ(Rebuild({MakeKey("1x", 0, 200)}), 3);
    ExpectReadList({{0, 10, 1, "1x"}, {80, 10, 1, "1x"}, {160, 5, 1, "1x"}});
}

TEST_F(ReadListTest, CoilsFarApartStartANewByteAlignedRequest) {
    info.maxFrameWords = 2;  // 16 coils per request
    EXPECT_EQ(Rebuild({MakeKey("0x", 1, 2), MakeKey("0x", 45, 4)}), 2);
    ExpectReadList({{0, 1, 1, "0x"}, {40, 2, 1, "0x"}});
}

TEST_F(ReadListTest, RegistersInsideTheCurrentRequestAreDropped) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 10), MakeKey("4x", 2, 3), MakeKey("4x", 9, 1)}), 1);
    ExpectReadList({{0, 10, 1, "4x"}});
}

TEST_F(ReadListTest, VariablesAreSortedByAddress) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 300, 2), MakeKey("4x", 0, 2), MakeKey("4x", 150, 2)}), 3);
    ExpectReadList({{0, 2, 1, "4x"}, {150, 2, 1, "4x"}, {300, 2, 1, "4x"}});
}

TEST_F(ReadListTest, FamiliesComeOutAsCoilsInputsInputRegistersHoldingRegisters) {
    EXPECT_EQ(Rebuild({MakeKey("4x_double", 10, 2), MakeKey("3x", 5, 1), MakeKey("1x", 8, 8),
                       MakeKey("0x", 16, 8), MakeKey("4x", 0, 1)}),
              4);
    ExpectReadList({{16, 1, 1, "0x"}, {8, 1, 1, "1x"}, {5, 1, 1, "3x"}, {0, 12, 1, "4x"}});
}

TEST_F(ReadListTest, EqualAddressesKeepInputOrderInOneStation) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 10, 5, 0, "first"), MakeKey("4x", 10, 3, 0, "second")}), 1);
    ExpectReadList({{10, 5, 1, "4x"}});
    EXPECT_EQ(PLC_driver.readList.first().auxName, QStringLiteral("first"));
}

TEST_F(ReadListTest, UnknownAreaIsSkippedInOneStation) {
    EXPECT_EQ(Rebuild({MakeKey("5x", 0, 4), MakeKey("4X", 0, 4), MakeKey("3x", 2, 1)}), 1);
    ExpectReadList({{2, 1, 1, "3x"}});
}

TEST_F(ReadListTest, FrameLimitBelowOneBuildsNothing) {
    for (int limit : {0, -1}) {
        SCOPED_TRACE(limit);
        info.maxFrameWords = limit;
        PLC_driver.readCursor = 4;
        info.cycleDone = 1;
        EXPECT_EQ(Rebuild({MakeKey("4x", 0, 10), MakeKey("0x", 0, 10), MakeKey("4x_bit", 3, 1)}),
                  0);
        EXPECT_TRUE(PLC_driver.readList.isEmpty());
        EXPECT_EQ(PLC_driver.readCursor, 0);
        EXPECT_EQ(info.cycleDone, 0);
    }
}

TEST_F(ReadListTest, FrameLimitBelowOneBuildsNothingWithStationGroups) {
    info.multiStation = 1;
    info.maxFrameWords = 0;
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 10, 2), MakeKey("1x", 0, 10, 3)}), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadListTest, WithoutComInfoNothingIsBuilt) {
    SetComInfo(nullptr);
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 10)}), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadListTest, NullListReturnsZero) {
    RW_VAR old = MakeVar("4x", 0, 1, 1);
    AddListReadVar(&old);
    EXPECT_EQ(ReCreatReadVarList(nullptr), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

// ---- Station groups -----------------------------------------------------------------------

class ReadListGroupTest : public ReadListTest {
protected:
    void SetUp() override {
        ReadListTest::SetUp();
        info.multiStation = 1;
    }
};

TEST_F(ReadListGroupTest, StationsAreNeverMergedWithEachOther) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 2, 1), MakeKey("4x", 2, 2, 2)}), 2);
    ExpectReadList({{0, 2, 1, "4x"}, {2, 2, 2, "4x"}});
}

TEST_F(ReadListGroupTest, GroupsFollowTheirFirstVariable) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 50, 1, 2), MakeKey("0x", 0, 1, 1), MakeKey("4x", 40, 1, 1),
                       MakeKey("4x", 0, 1, 2)}),
              3);
    ExpectReadList({{0, 51, 2, "4x"}, {0, 1, 1, "0x"}, {40, 1, 1, "4x"}});
}

TEST_F(ReadListGroupTest, RegisterAndBitInRegisterOfOneStationShareAGroup) {
    EXPECT_EQ(Rebuild({MakeKey("3x", 0, 4, 5), MakeKey("3x_bit", 6 * 16 + 1, 2, 5)}), 1);
    ExpectReadList({{0, 7, 5, "3x"}});
}

TEST_F(ReadListGroupTest, CoilsOfStation255AndInputsOfStation0ShareKey255) {
    EXPECT_EQ(Rebuild({MakeKey("0x", 0, 8, 255), MakeKey("1x", 8, 8, 0)}), 1);
    ExpectReadList({{0, 2, 255, "0x"}});
}

TEST_F(ReadListGroupTest, InputsOfStation255AndInputRegistersOfStation0ShareKey510) {
    // The group was opened by inputs, so the registers are merged bitwise with them.
    EXPECT_EQ(Rebuild({MakeKey("1x", 0, 8, 255), MakeKey("3x", 3, 20, 0)}), 1);
    ExpectReadList({{0, 3, 255, "1x"}});
}

TEST_F(ReadListGroupTest, NewestVariableComesFirstAmongEqualAddresses) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 10, 5, 1, "first"), MakeKey("4x", 10, 3, 1, "second")}), 1);
    ExpectReadList({{10, 5, 1, "4x"}});
    EXPECT_EQ(PLC_driver.readList.first().auxName, QStringLiteral("second"));
}

TEST_F(ReadListGroupTest, RequestsCarryTheVariablesStation) {
    Keyboard key = MakeKey("1x", 13, 4, 42, "door");
    EXPECT_EQ(Rebuild({key}), 1);
    const RW_VAR &request = PLC_driver.readList.first();
    ExpectReadList({{8, 2, 42, "1x"}});
    EXPECT_EQ(request.ownerType, 0);
    EXPECT_EQ(request.ownerId, -1);
    EXPECT_EQ(request.hostParamA, 21);
    EXPECT_EQ(request.hostParamB, 22);
    EXPECT_EQ(request.hostParamC, 0);
    EXPECT_EQ(request.hostParamD, 0);
    EXPECT_EQ(request.auxName, QStringLiteral("door"));
}

TEST_F(ReadListGroupTest, VariableOfNothingGivesNoRequestButPlacesItsGroup) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, 0, 2), MakeKey("4x", 0, 1, 1), MakeKey("4x", 9, 1, 2)}), 2);
    ExpectReadList({{9, 1, 2, "4x"}, {0, 1, 1, "4x"}});
}

TEST_F(ReadListGroupTest, LongVariableIsCutAtTheFrameLimit) {
    EXPECT_EQ(Rebuild({MakeKey("4x", 1000, 300, 3)}), 3);
    ExpectReadList({{1000, 125, 3, "4x"}, {1125, 125, 3, "4x"}, {1250, 50, 3, "4x"}});
}

TEST_F(ReadListGroupTest, LengthBeyondAWholeTableIsCutAtTheTableAndOneRegister) {
    info.maxFrameWords = 30000;
    EXPECT_EQ(Rebuild({MakeKey("4x", 0, INT_MAX, 3)}), 3);
    ExpectReadList({{0, 30000, 3, "4x"}, {30000, 30000, 3, "4x"}, {60000, 5537, 3, "4x"}});
}

TEST_F(ReadListGroupTest, UnknownAreaIsSkipped) {
    EXPECT_EQ(Rebuild({MakeKey("6x", 0, 4, 1), MakeKey("4x", 0, 4, 1)}), 1);
    ExpectReadList({{0, 4, 1, "4x"}});
}

// ---- Differential check against a plain model of the builder -------------------------------

// The builder as the design describes it, written the slow and obvious way: an exchange sort
// and a multi-map whose values come newest first.
struct ModelRequest {
    int address;
    int count;
    int station;
    QString area;
    QString auxName;
};

int ModelKind(const QString &a) {
    if (a == "0x") return 0;
    if (a == "1x") return 1;
    if (a == "3x" || a == "3x_bit" || a == "3x_double") return 2;
    if (a == "4x" || a == "4x_bit" || a == "4x_double") return 3;
    return -1;
}

void ModelExchangeSort(QList<ModelRequest> &list) {
    const int n = list.size();
    for (int i = 1; i < n; ++i) {
        for (int j = n - 1; j >= i; --j) {
            if (list[j].address < list[j - 1].address) list.swapItemsAt(j - 1, j);
        }
    }
}

QList<ModelRequest> ModelPieces(const Keyboard &key, int station, int max) {
    const int kind = ModelKind(key.area);
    int start = key.address;
    int count = key.length;
    int piece = kind <= 1 ? max * 8 : max;
    if (key.area == "3x_bit" || key.area == "4x_bit") {
        start = key.address / 16;
        const int span = key.address % 16 + key.length;
        count = span == 0 ? 0 : span / 16 + 1;
    }
    QList<ModelRequest> out;
    if (count <= piece) {
        out.append({start, count, station, key.area, key.auxName});
        return out;
    }
    const int n = (count + piece - 1) / piece;
    for (int i = 0; i < n; ++i) {
        const int pieceCount = (i == n - 1 && count % piece != 0) ? count % piece : piece;
        out.append({start + i * piece, pieceCount, station, key.area, key.auxName});
    }
    return out;
}

void ModelWordMerge(const QList<ModelRequest> &sorted, int max, QList<ModelRequest> &out) {
    if (sorted.isEmpty()) return;
    out.append(sorted.first());
    int curStart = sorted.first().address;
    int curLen = sorted.first().count;
    for (int i = 1; i < sorted.size(); ++i) {
        const int a = sorted[i].address;
        const int c = sorted[i].count;
        const int end = curStart + curLen;
        if (a < end && end >= a + c) continue;
        const int span = a + c - curStart;
        if (span <= max) {
            out.last().count = span;
            curLen = span;
        } else {
            out.append(sorted[i]);
            curStart = a;
            curLen = c;
        }
    }
}

void ModelBitMerge(const QList<ModelRequest> &sorted, int max, QList<ModelRequest> &out) {
    if (sorted.isEmpty()) return;
    auto toBytes = [](ModelRequest r) {
        const int span = r.address % 8 + r.count;
        r.address -= r.address % 8;
        r.count = (span + 7) / 8;
        return r;
    };
    out.append(toBytes(sorted.first()));
    int curStart = out.last().address;
    int curLen = out.last().count;
    for (int i = 1; i < sorted.size(); ++i) {
        const int a = sorted[i].address;
        const int c = sorted[i].count;
        const int end = curStart + curLen;
        if (a < end && end >= a + c) continue;
        const int span = a + c - curStart;
        if (span <= max * 8) {
            curLen = (span + 7) / 8;
            out.last().count = curLen;
        } else {
            out.append(toBytes(sorted[i]));
            curStart = out.last().address;
            curLen = out.last().count;
        }
    }
}

QList<ModelRequest> ModelSingleStation(const QList<Keyboard> &vars, const ComInfo &ci) {
    QList<ModelRequest> families[4];
    for (const Keyboard &key : vars) {
        const int kind = ModelKind(key.area);
        if (kind < 0) continue;
        families[kind] += ModelPieces(key, ci.defaultStation, ci.maxFrameWords);
    }
    QList<ModelRequest> out;
    for (int kind = 0; kind < 4; ++kind) {
        ModelExchangeSort(families[kind]);
        if (kind <= 1) {
            ModelBitMerge(families[kind], ci.maxFrameWords, out);
        } else {
            ModelWordMerge(families[kind], ci.maxFrameWords, out);
        }
    }
    return out;
}

QList<ModelRequest> ModelStationGroups(const QList<Keyboard> &vars, const ComInfo &ci) {
    QMultiMap<int, ModelRequest> map;
    QList<int> keys;
    QList<bool> bitwise;
    for (const Keyboard &key : vars) {
        const int kind = ModelKind(key.area);
        if (kind < 0) continue;
        const int groupKey = key.station + kind * 255;
        for (const ModelRequest &piece : ModelPieces(key, key.station, ci.maxFrameWords)) {
            if (piece.count != 0) map.insert(groupKey, piece);
        }
        if (!keys.contains(groupKey)) {
            keys.append(groupKey);
            bitwise.append(kind <= 1);
        }
    }
    QList<ModelRequest> out;
    for (int i = 0; i < keys.size(); ++i) {
        QList<ModelRequest> group = map.values(keys[i]);  // most recently inserted first
        ModelExchangeSort(group);
        if (bitwise[i]) {
            ModelBitMerge(group, ci.maxFrameWords, out);
        } else {
            ModelWordMerge(group, ci.maxFrameWords, out);
        }
    }
    return out;
}

// Dense variables over a few registers and stations, so that equal addresses, overlaps,
// shared groups and cut variables are all frequent.
QList<Keyboard> RandomVariables(std::mt19937 &random, int count) {
    static const char *const kAreas[] = {"0x",     "1x",        "3x",        "4x", "3x_bit",
                                         "4x_bit", "3x_double", "4x_double", "7x"};
    static const int kStations[] = {0, 1, 2, 254, 255};
    std::uniform_int_distribution<int> areaIndex(0, 8);
    std::uniform_int_distribution<int> stationIndex(0, 4);
    std::uniform_int_distribution<int> address(0, 60);
    std::uniform_int_distribution<int> length(0, 40);
    QList<Keyboard> vars;
    for (int i = 0; i < count; ++i) {
        const char *areaName = kAreas[areaIndex(random)];
        const bool registerBit = QString::fromLatin1(areaName).endsWith("_bit");
        const int start =
            registerBit ? address(random) * 16 + address(random) % 16 : address(random);
        vars.append(MakeKey(areaName, start, length(random), kStations[stationIndex(random)]));
        vars.last().auxName = QStringLiteral("v%1").arg(i);
    }
    return vars;
}

void ExpectSameAsModel(const QList<ModelRequest> &model) {
    const QList<RW_VAR> &list = PLC_driver.readList;
    ASSERT_EQ(list.size(), model.size());
    for (int i = 0; i < list.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(list[i].address, model[i].address);
        EXPECT_EQ(list[i].count, model[i].count);
        EXPECT_EQ(list[i].station, model[i].station);
        EXPECT_EQ(list[i].area, model[i].area);
        EXPECT_EQ(list[i].auxName, model[i].auxName);
    }
}

TEST_F(ReadListTest, RandomVariableSetsMatchThePlainModel) {
    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> limit(1, 12);
    for (int trial = 0; trial < 300; ++trial) {
        SCOPED_TRACE(trial);
        info.maxFrameWords = limit(random);
        const QList<Keyboard> vars = RandomVariables(random, 1 + trial % 120);
        Rebuild(vars);
        ExpectSameAsModel(ModelSingleStation(vars, info));
        if (HasFailure()) return;
    }
}

TEST_F(ReadListGroupTest, RandomVariableSetsMatchThePlainModel) {
    std::mt19937 random(777);
    std::uniform_int_distribution<int> limit(1, 12);
    for (int trial = 0; trial < 300; ++trial) {
        SCOPED_TRACE(trial);
        info.maxFrameWords = limit(random);
        const QList<Keyboard> vars = RandomVariables(random, 1 + trial % 120);
        Rebuild(vars);
        ExpectSameAsModel(ModelStationGroups(vars, info));
        if (HasFailure()) return;
    }
}

}  // namespace
