// Queue and sequenced sender of a device's outgoing messages.
#include "Device/MessageOutbox.h"

#include <limits>

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
    return sender.getNextPack(pack);
}

bool MessageOutbox::takeAck(const MessageCarrierACKPack& ack) {
    if (!inFlight) return false;
    MsgSelector ms;
    ms = ack;
    const MsgSelector& cur = sender.getMsgInfo();
    // Selector equality ignores msgNo; a late acknowledgement of an earlier
    // message with the same addressing must not move this one.
    if (!(cur == ms) || cur.msgNo != ack.msgNo) return false;
    MsgSender::SenderStatus st = sender.getStatus();
    if (st == MsgSender::EMPTY || st == MsgSender::DONE) return false;
    if (!sender.processAck(ack.lastSeqNo, ms)) return false;
    if (sender.getStatus() == MsgSender::DONE) finish(true, "");
    return true;
}

bool MessageOutbox::checkTimeout() {
    if (!inFlight || sender.getStatus() != MsgSender::TIMEOUT) return false;
    if (sender.tooManyFailures()) {
        finish(false, "no acknowledgement after " + std::to_string(MsgSender::MaxConssecutiveFailues + 1) +
                          " resends");
        return false;
    }
    return sender.fallbackToLastSentSequence();
}

void MessageOutbox::finish(bool delivered, const std::string& reason) {
    results.push_back({flying.ms.msgNo, delivered, reason});
    sender.clear();
    flying = Pending();
    inFlight = false;
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
