// SPDX-License-Identifier: MIT
// The client's side of a Telnet stream (RFC 854, options as RFC 855) as a device server
// speaks it for RFC 2217: data with IAC doubled, option negotiation answered, subnegotiations
// taken out of the data and the COM-PORT ones kept. No socket: bytes in, bytes out.
#ifndef MODBUS_ASCII_HOST_TELNET_CODEC_H
#define MODBUS_ASCII_HOST_TELNET_CODEC_H

#include <QByteArray>
#include <QList>
#include <map>

namespace telnet {
constexpr unsigned char kIac = 255;
constexpr unsigned char kDont = 254;
constexpr unsigned char kDo = 253;
constexpr unsigned char kWont = 252;
constexpr unsigned char kWill = 251;
constexpr unsigned char kSb = 250;
constexpr unsigned char kSe = 240;
constexpr unsigned char kBinary = 0;           // RFC 856
constexpr unsigned char kSuppressGoAhead = 3;  // RFC 858
constexpr unsigned char kComPort = 44;         // RFC 2217
}  // namespace telnet

// A COM-PORT subnegotiation from the server: its command code (the client's command + 100
// for an answer) and the value bytes, IAC undoubled.
struct ComPortMessage {
    int command = 0;
    QByteArray value;
};

// Where an option the client asked for stands.
enum class OptionState { Asked, Enabled, Refused };

class TelnetCodec {
public:
    // What a client opens with: WILL COM-PORT-OPTION, which RFC 2217 leaves to the client.
    QByteArray openingRequest();
    // Data for the wire: every IAC doubled.
    static QByteArray escape(const QByteArray &data);
    // Takes bytes from the wire in any pieces; returns the data among them. A command cut by
    // the end of a piece is completed by the next.
    QByteArray decode(const QByteArray &wire);
    // The negotiation answers owed to the server, in order; sent as they are.
    QByteArray takeAnswers();
    // The COM-PORT subnegotiations received since the last call, oldest first.
    QList<ComPortMessage> takeComPortMessages();
    // Where COM-PORT-OPTION stands since openingRequest.
    OptionState comPort() const;

private:
    enum class State { Data, Command, Option, Subnegotiation, SubnegotiationCommand };
    // One side of one option: the client's own (WILL/WONT) or the server's (DO/DONT).
    struct Side {
        bool enabled = false;
        bool asked = false;  // a request of ours awaits its answer
        bool refused = false;
    };

    void takeData(unsigned char byte, QByteArray &data);
    void takeCommand(unsigned char byte, QByteArray &data);
    void takeSubnegotiationByte(unsigned char byte);
    void negotiate(unsigned char verb, unsigned char option);
    void enable(Side &side, bool acceptable, unsigned char yes, unsigned char no,
                unsigned char option);
    void disable(Side &side, unsigned char no, unsigned char option);
    void endSubnegotiation();
    void answer(unsigned char verb, unsigned char option);

    State state_ = State::Data;
    unsigned char verb_ = 0;
    bool afterCr_ = false;
    QByteArray subnegotiation_;
    std::map<unsigned char, Side> ours_;    // options the client performs
    std::map<unsigned char, Side> theirs_;  // options the server performs
    QByteArray answers_;
    QList<ComPortMessage> comPortMessages_;
};

#endif  // MODBUS_ASCII_HOST_TELNET_CODEC_H
