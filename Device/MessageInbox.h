// Incoming messages of a device: reassembly of the hub's pieces into whole
// messages and the acknowledgements they call for.
//
// One message is received at a time. An acknowledgement is due at the end of a
// message and after a gap (then it tells the hub where to resume). A reception
// that stalls is nudged with an acknowledgement of what is held, and abandoned
// after too many nudges. A piece of the message completed last (the hub sends
// it again when our final acknowledgement was lost) is acknowledged again but
// not delivered twice. Pieces that do not fit are refused with a reason. The
// message size is capped, so a bad size from the network cannot exhaust memory.
// No I/O: the caller sends the acknowledgements.
#pragma once

#include <cstddef>
#include <cstdint>
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
    static constexpr int STALL_WAIT_MS = 250;
    static constexpr int MAX_NUDGES = 10;

    // maxSize: the largest message accepted (at least 1).
    explicit MessageInbox(uint32_t maxSize);

    // Takes one piece. Returns true when the piece was taken (out may ask for an
    // acknowledgement and may hold a complete message); false when it was
    // refused, with out.note saying why (an acknowledgement may still be due).
    bool take(const MessageCarrierPack& piece, InboxOutcome& out);

    // Called regularly with the current time. Returns true when a stalled
    // reception should be nudged (out holds the acknowledgement); false
    // otherwise, with out.note set when the reception was just abandoned.
    bool checkStall(Timestamp now, InboxOutcome& out);

    bool receiving() const { return active; }

private:
    bool startMessage(const MessageCarrierPack& piece, InboxOutcome& out);
    bool isLastCompleted(const MsgSelector& ms) const;
    void finishIfDone(InboxOutcome& out);
    void drop();

    uint32_t maxSize;
    MsgReceiver receiver;
    std::vector<uint8_t> buffer;
    MsgSelector stated;  // the selector as the first piece stated it
    bool active = false;
    bool haveCompleted = false;
    MsgSelector completed;  // the last message delivered
    int nudges = 0;
    Timestamp lastNudge = 0;
};

}  // namespace device
