// Outgoing messages of a device: a queue of whole messages and the sequenced
// sender of the one in flight.
//
// Messages go out one at a time (the hub reassembles one message per device at
// a time) in pieces of at most 326 bytes. An acknowledgement of the whole size
// completes a message; a smaller one makes the sender resend from there, once
// per round: the hub acknowledges its gap again for every piece that follows
// it, so a repeat of a position gone back to in the last 250 ms is taken
// without restarting a round (after that the resent piece may have been lost
// too, and the repeat counts again). Pieces go out in bursts of at most
// BURST_PIECES with BURST_GAP_MS of quiet between them (the hub names a gap
// as soon as a piece past it arrives, so a loss costs at most one burst, not
// the whole rest of the message); a go-back starts a new burst at once. When
// no acknowledgement comes within the sender's wait, the last piece is sent
// again; after too many waits in a row with no acknowledgement further into
// the message than before, the message is given up. A message of more than
// BURST_PIECES pieces that the hub never answered at all is sent once more
// from its first piece after SILENT_RESENDS_BEFORE_RESTART silent resends
// (its first piece was most likely lost, and the hub is silent to every piece
// of a message whose first piece it never had). Every
// finished message leaves one result. No I/O: the caller sends the pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "Velto/msg_sequencers.h"

namespace device {

struct DeliveryResult {
    MessageNo msgNo = 0;
    bool delivered = false;
    std::string reason;  // why it was not delivered; empty when delivered
};

class MessageOutbox {
public:
    static constexpr size_t MAX_QUEUED = 64;
    static constexpr int BURST_PIECES = 128;
    static constexpr int BURST_GAP_MS = 5;

    // Queues a message with its addressing (msgNo set by the caller). Returns
    // false when data is empty, larger than 4 GiB, or the queue is full.
    bool enqueue(const MsgSelector& ms, std::vector<uint8_t> data);

    // True while a message is in flight or queued.
    bool busy() const { return inFlight || !queue.empty(); }
    // Messages waiting behind the one in flight.
    size_t queued() const { return queue.size(); }
    // True when msgNo is in flight or queued.
    bool pending(MessageNo msgNo) const;
    // The selector of the message in flight; meaningful only while busy().
    const MsgSelector& current() const { return sender.getMsgInfo(); }

    // Fills pack with the next piece to send now, starting the next queued
    // message when none is in flight. Returns true when a piece was produced,
    // false when nothing is to be sent now.
    bool nextPiece(MessageCarrierPack& pack);
    // True when pieces wait only for the quiet time between two bursts.
    bool betweenBursts() const { return inFlight && burstLeft == 0; }

    static constexpr int REPEAT_WAIT_MS = 250;
    static constexpr int SILENT_RESENDS_BEFORE_RESTART = 3;

    // Takes an acknowledgement. Returns true when it belongs to the message in
    // flight (same addressing and msgNo) and was accepted, or repeats a
    // position gone back to within the last REPEAT_WAIT_MS, or is a late one of the
    // message finished last (those two change nothing); false otherwise
    // (foreign, or beyond what was sent), with nothing changed.
    bool takeAck(const MessageCarrierACKPack& ack);

    // Looks at the message in flight: after a time-out, arranges for the last
    // piece to be sent again, or gives the message up when it failed too often.
    // Returns true when a piece is due to be resent.
    bool checkTimeout();

    // Drops everything; in-flight and queued messages get a failed result.
    void abandonAll(const std::string& reason);
    // Drops the message in flight only (failed result); the queue stays.
    void abandonInFlight(const std::string& reason);

    // The results collected since the last call, in completion order.
    std::vector<DeliveryResult> takeResults();

private:
    struct Pending {
        MsgSelector ms;
        std::vector<uint8_t> data;
    };

    void finish(bool delivered, const std::string& reason);
    bool mayHaveLostFirstPiece() const;
    bool startNext();

    std::deque<Pending> queue;
    Pending flying;  // its buffer is what the sender points into
    bool inFlight = false;
    MsgSender sender;
    std::vector<DeliveryResult> results;
    struct Resume {
        uint32_t pos;
        Timestamp at;
    };
    bool recentlyWentBackTo(uint32_t pos, Timestamp now);
    std::deque<Resume> wentBack;  // positions gone back to, newest last
    int burstLeft = BURST_PIECES;  // pieces the current burst may still send
    Timestamp lastPieceAt = 0;
    uint32_t furthestAck = 0;  // of the message in flight
    int stalls = 0;            // time-outs since furthestAck last moved on
    bool answered = false;     // the hub acknowledged some of it
    bool restarted = false;    // it was sent again from its first piece
    bool haveFinished = false;
    MsgSelector lastFinished;  // msgNo included
};

}  // namespace device
