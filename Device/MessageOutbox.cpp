// Queue and sequenced sender of a device's outgoing messages.
#include "Device/MessageOutbox.h"

#include <limits>

#include "Velto/platform.h"

namespace device {

bool MessageOutbox::enqueue(const MsgSelector& ms, std::vector<uint8_t> data) {
    if (data.empty() || data.size() > std::numeric_limits<uint32_t>::max()) return false;
    if (queue.size() >= MAX_QUEUED) return false;
    queue.push_back(Pending{ms, std::move(data)});
    return true;
}

bool MessageOutbox::pending(MessageNo msgNo) const {
    if (inFlight && flying.ms.msgNo == msgNo) return true;
    for (const Pending& p : queue)
        if (p.ms.msgNo == msgNo) return true;
    return false;
}

bool MessageOutbox::startNext() {
    while (!inFlight && !queue.empty()) {
        flying = std::move(queue.front());
        queue.pop_front();
        sender.clear();
        if (sender.setNewMessage(flying.data.data(), static_cast<uint32_t>(flying.data.size()), flying.ms)) {
            inFlight = true;
        } else {
            results.push_back({flying.ms.msgNo, false, "the sender refused the message"});
        }
    }
    return inFlight;
}

bool MessageOutbox::nextPiece(MessageCarrierPack& pack) {
    if (!inFlight && !startNext()) return false;
    if (sender.getStatus() != MsgSender::SEND_NOW) return false;
    const Timestamp now = currentTime();
    if (burstLeft == 0) {
        if (now < lastPieceAt + BURST_GAP_MS) return false;
        burstLeft = BURST_PIECES;
    }
    if (!sender.getNextPack(pack)) return false;
    --burstLeft;
    lastPieceAt = now;
    return true;
}

namespace {

bool sameMessage(const MsgSelector& a, const MsgSelector& b) { return a == b && a.msgNo == b.msgNo; }

}  // namespace

bool MessageOutbox::takeAck(const MessageCarrierACKPack& ack) {
    MsgSelector ms;
    ms = ack;
    // Acks of the message finished last keep coming while the hub works
    // through the pieces it already had; they need no answer.
    if (haveFinished && sameMessage(lastFinished, ms)) return true;
    if (!inFlight) return false;
    // Selector equality ignores msgNo; a late acknowledgement of an earlier
    // message with the same addressing must not move this one.
    const MsgSelector& cur = sender.getMsgInfo();
    if (!sameMessage(cur, ms)) return false;
    MsgSender::SenderStatus st = sender.getStatus();
    if (st == MsgSender::EMPTY || st == MsgSender::DONE) return false;
    const Timestamp now = currentTime();
    if (ack.lastSeqNo < cur.msgSize && recentlyWentBackTo(ack.lastSeqNo, now)) return true;
    if (!sender.processAck(ack.lastSeqNo, ms)) return false;
    answered = true;
    if (ack.lastSeqNo > furthestAck) furthestAck = ack.lastSeqNo, stalls = 0;
    if (sender.getStatus() == MsgSender::DONE) {
        finish(true, "");
        return true;
    }
    wentBack.push_back(Resume{ack.lastSeqNo, now});
    burstLeft = BURST_PIECES;
    return true;
}

// Forgets positions older than REPEAT_WAIT_MS; a held-back repeat of an older
// round's position must not undo the rounds after it.
bool MessageOutbox::recentlyWentBackTo(uint32_t pos, Timestamp now) {
    while (!wentBack.empty() && wentBack.front().at + REPEAT_WAIT_MS <= now) wentBack.pop_front();
    for (const Resume& r : wentBack)
        if (r.pos == pos) return true;
    return false;
}

bool MessageOutbox::checkTimeout() {
    if (!inFlight || sender.getStatus() != MsgSender::TIMEOUT) return false;
    // The sender's own count never restarts within a message, so a long
    // message over a lossy link would be given up after a few scattered
    // waits; only waits in a row without the hub getting further count here.
    if (stalls > MsgSender::MaxConssecutiveFailues) {
        finish(false, "no acknowledgement after " + std::to_string(MsgSender::MaxConssecutiveFailues + 1) +
                          " resends");
        return false;
    }
    ++stalls;
    if (mayHaveLostFirstPiece()) {
        restarted = true;
        burstLeft = BURST_PIECES;
        return sender.processAck(0, sender.getMsgInfo());  // everything again, from the first piece
    }
    return sender.fallbackToLastSentSequence();
}

// The hub answers a repeated last piece whenever it holds a reception of the
// message (with its gap, or the whole size), and says nothing when it has
// none: either the first piece never reached it, or it had the whole message
// and its one acknowledgement of it was lost. A long message that was never
// answered at all is far more likely to have lost its first piece (a whole
// long message without a single gap to report), so it is sent once more from
// the start; a short one is left to the give-up, since sending it again could
// deliver it twice.
bool MessageOutbox::mayHaveLostFirstPiece() const {
    return !answered && !restarted && stalls > SILENT_RESENDS_BEFORE_RESTART &&
           flying.data.size() > static_cast<size_t>(BURST_PIECES) * MAX_CARRIER_PAYLOAD;
}

void MessageOutbox::finish(bool delivered, const std::string& reason) {
    results.push_back({flying.ms.msgNo, delivered, reason});
    haveFinished = true;
    lastFinished = flying.ms;
    wentBack.clear();
    furthestAck = 0;
    stalls = 0;
    answered = restarted = false;
    sender.clear();
    flying = Pending();
    inFlight = false;
    burstLeft = BURST_PIECES;
}

void MessageOutbox::abandonAll(const std::string& reason) {
    if (inFlight) finish(false, reason);
    for (const Pending& p : queue) results.push_back({p.ms.msgNo, false, reason});
    queue.clear();
}

void MessageOutbox::abandonInFlight(const std::string& reason) {
    if (inFlight) finish(false, reason);
}

std::vector<DeliveryResult> MessageOutbox::takeResults() {
    std::vector<DeliveryResult> out;
    out.swap(results);
    return out;
}

}  // namespace device
