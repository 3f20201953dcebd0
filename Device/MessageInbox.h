// Incoming messages of a device: reassembly of the hub's pieces into whole
// messages and the acknowledgements they call for.
//
// One message is received at a time. Pieces are kept wherever they fall, so a
// piece that arrives beyond a gap is not lost. The acknowledgement (bytes held
// contiguously from the start) goes out at the end of a message and once per
// resend round when a gap shows: not again for the same position until the
// sender has resent from there and that round has reached the end, or 250 ms
// have passed. A reception that stalls is nudged with an acknowledgement of
// what is held, and abandoned after too many nudges. Pieces of the message
// completed last are acknowledged again (at most once per 250 ms) but not
// delivered twice. Diagnostics: at most one line per round or refused message.
// The message size is capped. No I/O: the caller sends the acknowledgements.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Velto/msg_sequencers.h"

namespace device {

struct IncomingMessage {
    MsgSelector selector;  // msgSize and checksum as the sender stated them
    std::vector<uint8_t> data;
};

// What taking one piece (or checking for a stall) asks of the caller.
struct InboxOutcome {
    bool sendAck = false;  // acknowledge `ackSelector` up to `ackPos`
    MsgSelector ackSelector;
    uint32_t ackPos = 0;
    bool complete = false;  // `message` holds a whole new message
    IncomingMessage message;
    std::string note;  // a one-line diagnostic, empty when all is well
};

class MessageInbox {
public:
    static constexpr int STALL_WAIT_MS = 250;  // also the least time between two acks of one position
    static constexpr int MAX_NUDGES = 10;

    // maxSize: the largest message accepted (at least 1).
    explicit MessageInbox(uint32_t maxSize);

    // Takes one piece. Returns true when the piece was taken (out may ask for an
    // acknowledgement and may hold a complete message); false when it was
    // refused, with out.note saying why the first time a message is refused.
    // A piece of another message than the one under way starts that message
    // (the sender gave the old one up).
    bool take(const MessageCarrierPack& piece, InboxOutcome& out);

    // Called regularly with the current time. Returns true when a stalled
    // reception should be nudged (out holds the acknowledgement); false
    // otherwise, with out.note set when the reception was just abandoned.
    bool checkStall(Timestamp now, InboxOutcome& out);

    bool receiving() const { return active; }

private:
    bool refuse(const MsgSelector& ms, const std::string& why, InboxOutcome& out);
    bool startMessage(const MsgSelector& ms, InboxOutcome& out);
    bool isLastCompleted(const MsgSelector& ms) const;
    void store(const uint8_t* data, uint32_t pos, uint32_t len);
    void askFrom(Timestamp now, InboxOutcome& out);
    bool gapAckDue(uint32_t pos, uint32_t len, Timestamp now);
    void finish(InboxOutcome& out);
    void drop();

    uint32_t maxSize;
    std::vector<uint8_t> buffer;
    MsgSelector stated;  // the selector as the first piece seen stated it
    bool active = false;
    uint32_t prefix = 0;                  // bytes held contiguously from 0
    std::map<uint32_t, uint32_t> beyond;  // byte ranges [start, end) held past the prefix
    Timestamp lastPieceAt = 0;

    // The current round: the position we asked the sender to resume from.
    bool asked = false;
    uint32_t askedPos = 0;
    Timestamp askedAt = 0;
    bool resent = false;  // a piece at askedPos came after we asked

    bool haveCompleted = false;
    MsgSelector completed;  // the last message delivered
    Timestamp completedAckAt = 0;
    bool haveRefused = false;
    MsgSelector refused;  // the last message refused (noted once)
    int nudges = 0;
    Timestamp lastNudge = 0;
};

}  // namespace device
