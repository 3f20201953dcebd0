// Reassembly of incoming messages and their acknowledgements.
#include "Device/MessageInbox.h"

namespace device {

namespace {

MsgSelector selectorOf(const MessageCarrierPack& p) {
    MsgSelector ms;
    ms = p;
    return ms;
}

bool sameMessage(const MsgSelector& a, const MsgSelector& b) {
    return a == b && a.msgNo == b.msgNo && a.msgSize == b.msgSize;
}

void ackWith(InboxOutcome& out, const MsgSelector& ms, uint32_t pos) {
    out.sendAck = true;
    out.ackSelector = ms;
    out.ackPos = pos;
}

}  // namespace

MessageInbox::MessageInbox(uint32_t max) : maxSize(max == 0 ? 1 : max) {}

bool MessageInbox::isLastCompleted(const MsgSelector& ms) const {
    return haveCompleted && sameMessage(completed, ms) && completed.checksum == ms.checksum;
}

void MessageInbox::drop() {
    receiver.clear();
    buffer.clear();
    buffer.shrink_to_fit();
    active = false;
    nudges = 0;
}

bool MessageInbox::startMessage(const MessageCarrierPack& piece, InboxOutcome& out) {
    const MsgSelector ms = selectorOf(piece);
    if (ms.msgSize == 0 || ms.msgSize > maxSize) {
        out.note = "refused message of " + std::to_string(ms.msgSize) + " bytes (largest accepted " +
                   std::to_string(maxSize) + ")";
        return false;
    }
    if (active && !sameMessage(stated, ms))
        out.note = "abandoned message no " + std::to_string(stated.msgNo) + " for a new one";
    drop();
    buffer.assign(ms.msgSize, 0);
    if (!receiver.init(buffer.data(), ms.msgSize, ms)) {
        drop();
        out.note = "could not start a reception";
        return false;
    }
    stated = ms;
    active = true;
    return true;
}

bool MessageInbox::take(const MessageCarrierPack& piece, InboxOutcome& out) {
    out = InboxOutcome();
    const MsgSelector ms = selectorOf(piece);
    if (ms.msgCat != NOTIFICATION_MSGCAT && ms.msgCat != DIRECT_MSGCAT) {
        out.note = "refused piece of unknown message category " + std::to_string(ms.msgCat);
        return false;
    }
    if (isLastCompleted(ms)) {
        // Our final acknowledgement was lost: confirm again, deliver nothing.
        ackWith(out, ms, ms.msgSize);
        return true;
    }
    if (piece.packetStart == 0) {
        if (!startMessage(piece, out)) return false;
    } else if (!active || !sameMessage(stated, ms)) {
        out.note = "refused piece at " + std::to_string(piece.packetStart) + " of message no " +
                   std::to_string(ms.msgNo) + ", which is not being received";
        return false;
    }
    const bool taken = receiver.put(piece.payload.data(), piece.packetStart,
                                    static_cast<uint32_t>(piece.payload.size()));
    nudges = 0;
    uint32_t pos = 0;
    if (receiver.getStatus() == MsgReceiver::DONE) {
        receiver.sendAck(pos);  // clears the gap flag
        finishIfDone(out);
        return true;
    }
    if (receiver.sendAck(pos)) ackWith(out, stated, pos);
    if (!taken) out.note = "piece at " + std::to_string(piece.packetStart) + " left a gap; resume asked at " +
                           std::to_string(pos);
    return taken;
}

void MessageInbox::finishIfDone(InboxOutcome& out) {
    // The receiver replaced its checksum with the one of the bytes held.
    const uint32_t held = receiver.getMsgInfo().checksum;
    if (held != stated.checksum) {
        out.note = "checksum mismatch in message no " + std::to_string(stated.msgNo) + " (held " +
                   std::to_string(held) + ", stated " + std::to_string(stated.checksum) + "); asked again";
        ackWith(out, stated, 0);
        drop();
        return;
    }
    ackWith(out, stated, stated.msgSize);
    out.complete = true;
    out.message.selector = stated;
    out.message.data = std::move(buffer);
    completed = stated;
    haveCompleted = true;
    drop();
}

bool MessageInbox::checkStall(Timestamp now, InboxOutcome& out) {
    out = InboxOutcome();
    if (!active || receiver.getStatus() != MsgReceiver::TIMEOUT) return false;
    if (now < lastNudge + STALL_WAIT_MS) return false;
    if (nudges >= MAX_NUDGES) {
        out.note = "abandoned message no " + std::to_string(stated.msgNo) + " after " +
                   std::to_string(receiver.size()) + " of " + std::to_string(stated.msgSize) + " bytes";
        drop();
        return false;
    }
    ++nudges;
    lastNudge = now;
    ackWith(out, stated, receiver.size());
    return true;
}

}  // namespace device
