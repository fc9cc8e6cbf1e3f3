// SPDX-License-Identifier: MIT
#include "telnet_codec.h"

using telnet::kBinary;
using telnet::kComPort;
using telnet::kDo;
using telnet::kDont;
using telnet::kIac;
using telnet::kSb;
using telnet::kSe;
using telnet::kSuppressGoAhead;
using telnet::kWill;
using telnet::kWont;

namespace {

// A COM-PORT message is at most a code and four value bytes; a longer subnegotiation (a
// signature text, an option this client does not know) is cut here, so that a server cannot
// make the client keep what it sends without end.
constexpr int kMaxSubnegotiationBytes = 64;

// Options the client performs when the server asks: 8-bit data, no go-ahead and COM-PORT.
bool ClientAccepts(unsigned char option) {
    return option == kBinary || option == kSuppressGoAhead || option == kComPort;
}

// Options the server may perform: 8-bit data and no go-ahead. Anything else (echo, above
// all, which would send every request back) is refused.
bool ServerMay(unsigned char option) {
    return option == kBinary || option == kSuppressGoAhead;
}

QByteArray NegotiationCommand(unsigned char verb, unsigned char option) {
    QByteArray command(3, static_cast<char>(kIac));
    command[1] = static_cast<char>(verb);
    command[2] = static_cast<char>(option);
    return command;
}

}  // namespace

QByteArray TelnetCodec::openingRequest() {
    ours_[kComPort].asked = true;
    return NegotiationCommand(kWill, kComPort);
}

QByteArray TelnetCodec::escape(const QByteArray &data) {
    QByteArray wire;
    wire.reserve(data.size());
    for (char c : data) {
        wire.append(c);
        if (static_cast<unsigned char>(c) == kIac) wire.append(c);
    }
    return wire;
}

QByteArray TelnetCodec::decode(const QByteArray &wire) {
    QByteArray data;
    for (char c : wire) {
        const auto byte = static_cast<unsigned char>(c);
        switch (state_) {
            case State::Data:
                takeData(byte, data);
                break;
            case State::Command:
                takeCommand(byte, data);
                break;
            case State::Option:
                state_ = State::Data;
                negotiate(verb_, byte);
                break;
            case State::Subnegotiation:
                if (byte == kIac) {
                    state_ = State::SubnegotiationCommand;
                } else {
                    takeSubnegotiationByte(byte);
                }
                break;
            case State::SubnegotiationCommand:
                if (byte == kIac) {  // a doubled IAC inside a value
                    state_ = State::Subnegotiation;
                    takeSubnegotiationByte(byte);
                } else if (byte == kSe) {
                    state_ = State::Data;
                    endSubnegotiation();
                } else {  // no SE: the subnegotiation was broken off by another command
                    subnegotiation_.clear();
                    takeCommand(byte, data);
                }
                break;
        }
    }
    return data;
}

void TelnetCodec::takeData(unsigned char byte, QByteArray &data) {
    if (byte == kIac) {
        state_ = State::Command;
        return;
    }
    // Outside binary mode a CR that is not the end of a line travels as CR NUL (RFC 854);
    // the NUL is not data.
    const bool padding = afterCr_ && byte == 0 && !theirs_[kBinary].enabled;
    afterCr_ = byte == '\r';
    if (!padding) data.append(static_cast<char>(byte));
}

void TelnetCodec::takeCommand(unsigned char byte, QByteArray &data) {
    state_ = State::Data;
    if (byte == kIac) {
        afterCr_ = false;
        data.append(static_cast<char>(byte));
    } else if (byte >= kWill && byte <= kDont) {
        verb_ = byte;
        state_ = State::Option;
    } else if (byte == kSb) {
        subnegotiation_.clear();
        state_ = State::Subnegotiation;
    }
    // No operation, go-ahead, data mark and the other commands mean nothing to a line of
    // frames.
}

void TelnetCodec::takeSubnegotiationByte(unsigned char byte) {
    if (subnegotiation_.size() < kMaxSubnegotiationBytes) {
        subnegotiation_.append(static_cast<char>(byte));
    }
}

void TelnetCodec::endSubnegotiation() {
    if (subnegotiation_.size() >= 2 && static_cast<unsigned char>(subnegotiation_[0]) == kComPort) {
        comPortMessages_.append(
            {static_cast<unsigned char>(subnegotiation_[1]), subnegotiation_.mid(2)});
    }
    subnegotiation_.clear();
}

// Each side of each option is on or off. A request to switch it to where it already is goes
// unanswered (RFC 854), and so does the answer to a request of ours: the client never answers
// an answer, so no negotiation can loop.
void TelnetCodec::negotiate(unsigned char verb, unsigned char option) {
    if (verb == kDo) {
        enable(ours_[option], ClientAccepts(option), kWill, kWont, option);
    } else if (verb == kWill) {
        enable(theirs_[option], ServerMay(option), kDo, kDont, option);
    } else if (verb == kDont) {
        disable(ours_[option], kWont, option);
    } else {
        disable(theirs_[option], kDont, option);
    }
}

void TelnetCodec::enable(Side &side, bool acceptable, unsigned char yes, unsigned char no,
                         unsigned char option) {
    if (side.enabled) {
        side.asked = false;
    } else if (!acceptable) {
        answer(no, option);
    } else if (side.asked) {
        side.asked = false;
        side.enabled = true;
    } else {
        side.enabled = true;
        answer(yes, option);
    }
}

void TelnetCodec::disable(Side &side, unsigned char no, unsigned char option) {
    if (side.enabled) {
        side.enabled = false;
        answer(no, option);
    } else if (side.asked) {
        side.asked = false;
        side.refused = true;
    }
}

void TelnetCodec::answer(unsigned char verb, unsigned char option) {
    answers_.append(NegotiationCommand(verb, option));
}

QByteArray TelnetCodec::takeAnswers() {
    QByteArray answers;
    answers.swap(answers_);
    return answers;
}

QList<ComPortMessage> TelnetCodec::takeComPortMessages() {
    QList<ComPortMessage> messages;
    messages.swap(comPortMessages_);
    return messages;
}

OptionState TelnetCodec::comPort() const {
    const auto side = ours_.find(kComPort);
    if (side == ours_.end() || side->second.refused) return OptionState::Refused;
    return side->second.enabled ? OptionState::Enabled : OptionState::Asked;
}
