// Reassembly of incoming messages and their acknowledgements.
#include "Device/MessageInbox.h"

#include <algorithm>

#include "Velto/platform.h"

namespace device {

namespace {

MsgSelector selectorOf(const MessageCarrierPack& p) {
    MsgSelector ms;
    ms = p;
    return ms;
}

bool sameMessage(const MsgSelector& a, const MsgSelector& b) {
    return a == b && a.msgNo == b.msgNo && a.msgSize == b.msgSize && a.checksum == b.checksum;
}

void ackWith(InboxOutcome& out, const MsgSelector& ms, uint32_t pos) {
    out.sendAck = true;
    out.ackSelector = ms;
    out.ackPos = pos;
}

uint32_t checksumOf(const std::vector<uint8_t>& data) {
    uint32_t sum = 0;
    for (uint8_t b : data) sum += b;
    return sum;
}

}  // namespace

MessageInbox::MessageInbox(uint32_t max) : maxSize(max == 0 ? 1 : max) {}

bool MessageInbox::isLastCompleted(const MsgSelector& ms) const {
    return haveCompleted && sameMessage(completed, ms);
}

void MessageInbox::drop() {
    buffer.clear();
    buffer.shrink_to_fit();
    beyond.clear();
    active = false;
    prefix = 0;
    asked = resent = false;
    nudges = 0;
}

// Every piece of a refused message is refused; only the first says so.
bool MessageInbox::refuse(const MsgSelector& ms, const std::string& why, InboxOutcome& out) {
    if (!haveRefused || !sameMessage(refused, ms)) out.note = why;
    haveRefused = true;
    refused = ms;
    return false;
}

bool MessageInbox::startMessage(const MsgSelector& ms, InboxOutcome& out) {
    if (ms.msgSize == 0 || ms.msgSize > maxSize)
        return refuse(ms, "refused message of " + std::to_string(ms.msgSize) + " bytes (largest accepted " +
                              std::to_string(maxSize) + ")", out);
    if (active)
        out.note = "abandoned message no " + std::to_string(stated.msgNo) + " for a new one";
    drop();
    buffer.assign(ms.msgSize, 0);
    stated = ms;
    active = true;
    return true;
}

// Copies the bytes in and merges their range with what is held.
void MessageInbox::store(const uint8_t* data, uint32_t pos, uint32_t len) {
    std::copy(data, data + len, buffer.begin() + pos);
    uint32_t start = pos, end = pos + len;
    auto it = beyond.upper_bound(start);
    if (it != beyond.begin() && std::prev(it)->second >= start) {
        --it;
        start = it->first;
        end = std::max(end, it->second);
        it = beyond.erase(it);
    }
    while (it != beyond.end() && it->first <= end) {
        end = std::max(end, it->second);
        it = beyond.erase(it);
    }
    if (start <= prefix) {
        prefix = std::max(prefix, end);
    } else {
        beyond[start] = end;
    }
    // The prefix may now reach ranges held past it.
    it = beyond.begin();
    while (it != beyond.end() && it->first <= prefix) {
        prefix = std::max(prefix, it->second);
        it = beyond.erase(it);
    }
}

// With a gap before the bytes held: ask once, then again only when the
// sender's round from there has reached the end with a hole left, or when the
// last question is 250 ms old (it or the resent piece may have been lost).
bool MessageInbox::gapAckDue(uint32_t pos, uint32_t len, Timestamp now) {
    if (asked && pos <= askedPos && askedPos < pos + len) resent = true;
    if (beyond.empty()) return false;
    if (!asked) return true;
    if (resent && pos + len == stated.msgSize) return true;
    return now >= askedAt + STALL_WAIT_MS;
}

void MessageInbox::askFrom(Timestamp now, InboxOutcome& out) {
    ackWith(out, stated, prefix);
    asked = true;
    askedPos = prefix;
    askedAt = now;
    resent = false;
}

bool MessageInbox::take(const MessageCarrierPack& piece, InboxOutcome& out) {
    out = InboxOutcome();
    const MsgSelector ms = selectorOf(piece);
    const Timestamp now = currentTime();
    if (ms.msgCat != NOTIFICATION_MSGCAT && ms.msgCat != DIRECT_MSGCAT)
        return refuse(ms, "refused piece of unknown message category " + std::to_string(ms.msgCat), out);
    if (isLastCompleted(ms)) {
        // Our final acknowledgement was lost: confirm again, deliver nothing.
        if (now >= completedAckAt + STALL_WAIT_MS) {
            ackWith(out, ms, ms.msgSize);
            completedAckAt = now;
        }
        return true;
    }
    if (!active || !sameMessage(stated, ms)) {
        if (!startMessage(ms, out)) return false;
    }
    const uint32_t len = static_cast<uint32_t>(piece.payload.size());
    if (piece.packetStart >= stated.msgSize || len == 0) return false;
    const uint32_t taken = std::min(len, stated.msgSize - piece.packetStart);
    store(piece.payload.data(), piece.packetStart, taken);
    lastPieceAt = now;
    nudges = 0;
    if (prefix == stated.msgSize) {
        finish(out);
        return true;
    }
    if (gapAckDue(piece.packetStart, taken, now)) {
        askFrom(now, out);
        out.note = "gap in message no " + std::to_string(stated.msgNo) + " at " + std::to_string(prefix) + " of " +
                   std::to_string(stated.msgSize) + " bytes; asked to resume there";
    }
    return true;
}

void MessageInbox::finish(InboxOutcome& out) {
    const uint32_t held = checksumOf(buffer);
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
    completedAckAt = currentTime();
    drop();
}

bool MessageInbox::checkStall(Timestamp now, InboxOutcome& out) {
    out = InboxOutcome();
    if (!active || now <= lastPieceAt + STALL_WAIT_MS) return false;
    if (now < lastNudge + STALL_WAIT_MS || (asked && now < askedAt + STALL_WAIT_MS)) return false;
    if (nudges >= MAX_NUDGES) {
        out.note = "abandoned message no " + std::to_string(stated.msgNo) + " after " + std::to_string(prefix) +
                   " of " + std::to_string(stated.msgSize) + " bytes";
        drop();
        return false;
    }
    ++nudges;
    lastNudge = now;
    askFrom(now, out);
    return true;
}

}  // namespace device
