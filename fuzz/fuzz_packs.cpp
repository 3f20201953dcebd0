// Fuzzes the wire format. The input goes through deserialize of every pack
// type (signatures checked, a key set); a pack that reads is written again and
// must be a fixed point, type-1 signatures made on the way verify and type-2
// never do (kept). Read as a stream of carrier packs it feeds a MsgReceiver
// checked against a plain model of reassembly, and the message then goes
// through a MsgSender whose waits the input answers. Read as each
// device-management body, one within its caps must be written back within
// the size it estimates.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Velto/Velto.h"
#include "Velto/msg_sequencers.h"
#include "Velto/Interfaces/DeviceManagementInterface.h"
#include "fuzz/fuzz_support.h"

namespace {

const uint8_t kKey[20] = {0x5e, 0x55, 0x10, 0x4b, 0x00, 0xff, 0x21, 0x9a, 0x3c, 0x77,
                          0x80, 0x01, 0xde, 0xad, 0xbe, 0xef, 0x42, 0x13, 0x37, 0x66};
// Largest message the reassembly stage allocates, whatever msgSize says.
const uint32_t kMaxMessage = 4096;
const int kMaxPieces = 64;
const int kMaxSends = 1024;
const int kMaxActions = 16;

// ---- 1. every pack type

// True when every text holds at most its capacity (a sender that exceeds a cap
// makes the reader keep one more character, and such a pack does not
// re-read as written: kept wire behaviour).
template <typename... Texts>
bool within(const Texts&... t) {
    return ((t.size() <= t.capacity()) && ...);
}

bool textsFit(const NewBornDevicePack& p) { return within(p.duid, p.specs, p.prevn, p.prevdom); }
bool textsFit(const AdoptionOfferPack& p) { return within(p.duid, p.nname, p.domain); }
bool textsFit(const NetworkJoinPack& p) { return within(p.duid, p.nname, p.domain); }
bool textsFit(const JoinAcceptedPack& p) { return within(p.duid); }
bool textsFit(const ConfigSummaryPack& p) { return within(p.duid); }
bool textsFit(const ObjectInfoPack& p) { return within(p.name, p.interface, p.sParam1, p.sParam2); }
bool textsFit(const MessageErrorPack& p) { return within(p.optErorMsg); }
bool textsFit(const VeltoPacket&) { return true; }

template <typename Pack>
void checkPack(const uint8_t* data, size_t size) {
    Pack p;
    p.signature.setKey(HMAC_SHA1_TYPE, kKey, sizeof(kKey));
    const int n = p.deserialize(data, size, true);
    FUZZ_CHECK(n == -1 || (n >= 10 && static_cast<size_t>(n) <= size));
    if (n < 0) return;
    const uint8_t sigType = data[8];
    if (sigType == NO_SIGNATURE_TYPE) FUZZ_CHECK(p.signature.verified());
    if (sigType >= HMAC_SHA256_TYPE) FUZZ_CHECK(!p.signature.verified());
    if (!textsFit(p)) return;

    uint8_t first[MAX_PACKET_SIZE];
    const int m = p.serialize(first, sizeof(first));
    FUZZ_CHECK(m >= 10);  // every pack within its caps fits the send buffer

    Pack q;
    q.signature.setKey(HMAC_SHA1_TYPE, kKey, sizeof(kKey));
    FUZZ_CHECK(q.deserialize(first, static_cast<size_t>(m), true) == m);
    if (sigType == HMAC_SHA1_TYPE) FUZZ_CHECK(q.signature.verified());
    if (sigType >= HMAC_SHA256_TYPE) FUZZ_CHECK(!q.signature.verified());
    uint8_t second[MAX_PACKET_SIZE];
    FUZZ_CHECK(q.serialize(second, sizeof(second)) == m);
    FUZZ_CHECK(memcmp(first, second, static_cast<size_t>(m)) == 0);
}

void checkEveryPack(const uint8_t* data, size_t size) {
    checkPack<VeltoPacket>(data, size);
    checkPack<NewBornDevicePack>(data, size);
    checkPack<AdoptionOfferPack>(data, size);
    checkPack<NetworkJoinPack>(data, size);
    checkPack<JoinAcceptedPack>(data, size);
    checkPack<ConfigSummaryPack>(data, size);
    checkPack<GetObjectInfoPack>(data, size);
    checkPack<ObjectInfoPack>(data, size);
    checkPack<ConfigurationCompletePack>(data, size);
    checkPack<PingPongPack>(data, size);
    checkPack<MessageCarrierPack>(data, size);
    checkPack<MessageCarrierACKPack>(data, size);
    checkPack<NotificationSubscriptionPack>(data, size);
    checkPack<MessageErrorPack>(data, size);
}

// ---- 2. sequencers

// What a receiver should hold: the bytes taken so far and whether a gap is
// waiting to be acknowledged.
struct ReassemblyModel {
    std::vector<uint8_t> bytes;
    uint32_t held = 0;
    bool gapSeen = false;

    explicit ReassemblyModel(uint32_t size) : bytes(size) {}
    uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }

    // Mirrors one put; returns whether the piece is taken.
    bool put(const uint8_t* piece, uint32_t pos, uint32_t len) {
        if (pos > held) {
            gapSeen = true;
            return false;
        }
        const uint32_t taken = len < size() - pos ? len : size() - pos;
        if (taken) memcpy(bytes.data() + pos, piece, taken);
        held = pos + taken;
        return true;
    }
    // Mirrors sendAck; returns whether one is due.
    bool ackDue() {
        const bool due = gapSeen || held == size();
        if (due) gapSeen = false;
        return due;
    }
};

// Feeds one piece to both, then compares them.
void putPiece(MsgReceiver& rx, const std::vector<uint8_t>& rxBuf, ReassemblyModel& model,
              const MessageCarrierPack& piece) {
    const uint32_t len = static_cast<uint32_t>(piece.payload.size());
    const bool expected = model.put(piece.payload.data(), piece.packetStart, len);
    FUZZ_CHECK(rx.put(piece.payload.data(), piece.packetStart, len) == expected);
    FUZZ_CHECK(rx.size() == model.held);
    uint32_t ackPos = 0xFFFFFFFFu;
    const bool due = model.ackDue();
    FUZZ_CHECK(rx.sendAck(ackPos) == due);
    if (due) FUZZ_CHECK(ackPos == model.held);
    FUZZ_CHECK(memcmp(rxBuf.data(), model.bytes.data(), model.held) == 0);
    if (model.held == model.size()) {
        FUZZ_CHECK(rx.getStatus() == MsgReceiver::DONE);
        FUZZ_CHECK(rx.getMsgInfo().checksum == messageChecksum(model.bytes.data(), model.size()));
    } else {
        FUZZ_CHECK(rx.getStatus() != MsgReceiver::DONE && rx.getStatus() != MsgReceiver::EMPTY);
    }
}

// One reaction of the receiving side while the sender waits, chosen by two
// input bytes: an acknowledgement of a position, or a fallback to the last
// piece (acknowledgements of other messages are unit-tested).
void waitingStep(MsgSender& tx, uint32_t size, const uint8_t* act, int& failures) {
    const uint32_t pos = static_cast<uint32_t>(((act[0] >> 1) << 8 | act[1]) % (size + 1));
    if (act[0] & 1u) {
        FUZZ_CHECK(tx.processAck(pos, tx.getMsgInfo()));
    } else {
        FUZZ_CHECK(tx.fallbackToLastSentSequence());
        ++failures;
        FUZZ_CHECK(tx.getStatus() == MsgSender::SEND_NOW);
    }
    FUZZ_CHECK(tx.tooManyFailures() == (failures > MsgSender::MaxConssecutiveFailues));
}

// Sends the message through a MsgSender to a fresh receiver. While the sender
// waits, up to kMaxActions reactions read from actSrc come first; then the
// whole message is acknowledged.
void sendThrough(const std::vector<uint8_t>& msg, const MsgSelector& ms, const uint8_t* actSrc, size_t actLeft) {
    const uint32_t size = static_cast<uint32_t>(msg.size());
    MsgSender tx;
    FUZZ_CHECK(tx.setNewMessage(msg.data(), size, ms));
    FUZZ_CHECK(!tx.setNewMessage(msg.data(), size, ms));
    FUZZ_CHECK(tx.getMsgInfo().msgSize == size);
    const uint32_t sum = messageChecksum(msg.data(), size);
    FUZZ_CHECK(tx.getMsgInfo().checksum == sum);

    std::vector<uint8_t> buf(size);
    MsgReceiver rx;
    FUZZ_CHECK(rx.init(buf.data(), size, ms));
    int actions = 0;
    int failures = 0;
    for (int i = 0; i < kMaxSends && tx.getStatus() != MsgSender::DONE; ++i) {
        const MsgSender::SenderStatus st = tx.getStatus();
        if (st == MsgSender::SEND_NOW) {
            MessageCarrierPack pk;
            FUZZ_CHECK(tx.getNextPack(pk));
            FUZZ_CHECK(pk.checksum == sum && pk.msgSize == size);
            FUZZ_CHECK(pk.payload.size() > 0 && pk.packetStart + pk.payload.size() <= size);
            // The sender only goes back to positions the receiver holds.
            FUZZ_CHECK(rx.put(pk.payload.data(), pk.packetStart, static_cast<uint32_t>(pk.payload.size())));
            continue;
        }
        FUZZ_CHECK(st == MsgSender::WAITING_FOR_ACK || st == MsgSender::TIMEOUT);
        if (actions < kMaxActions && actLeft >= 2) {
            waitingStep(tx, size, actSrc, failures);
            actSrc += 2;
            actLeft -= 2;
            ++actions;
        } else {
            FUZZ_CHECK(tx.processAck(size, tx.getMsgInfo()));
        }
    }
    FUZZ_CHECK(tx.getStatus() == MsgSender::DONE);
    FUZZ_CHECK(rx.getStatus() == MsgReceiver::DONE);
    FUZZ_CHECK(buf == msg);
    uint32_t ackPos = 0;
    FUZZ_CHECK(rx.sendAck(ackPos) && ackPos == size);
    tx.clear();
    FUZZ_CHECK(tx.getStatus() == MsgSender::EMPTY);
}

void checkSequencers(const uint8_t* data, size_t size) {
    MessageCarrierPack piece;
    int n = piece.deserialize(data, size, false);
    if (n <= 0 || piece.msgSize == 0) return;
    const uint32_t msgSize = piece.msgSize < kMaxMessage ? piece.msgSize : kMaxMessage;
    MsgSelector ms;
    ms = piece;

    std::vector<uint8_t> buf(msgSize);
    ReassemblyModel model(msgSize);
    MsgReceiver rx;
    FUZZ_CHECK(rx.init(buf.data(), msgSize, ms));
    FUZZ_CHECK(!rx.init(buf.data(), msgSize, ms));
    const uint8_t* cursor = data;
    size_t left = size;
    for (int i = 0; i < kMaxPieces && n > 0; ++i) {
        putPiece(rx, buf, model, piece);
        cursor += n;
        left -= static_cast<size_t>(n);
        n = piece.deserialize(cursor, left, false);
    }
    sendThrough(model.bytes, ms, data, size);
    rx.clear();
    FUZZ_CHECK(rx.getStatus() == MsgReceiver::EMPTY);
}

// ---- 3. device-management bodies

bool textsFit(const RequestBasicDeviceListMsg& m) { return within(m.matchSpecs, m.withName, m.haveObjectWithIface); }
bool textsFit(const BasicDeviceInfo& d) { return within(d.duid, d.specs, d.nname, d.domain); }
bool textsFit(const BasicDeviceListMsg& l) {
    for (const BasicDeviceInfo& d : l.devList)
        if (!textsFit(d)) return false;
    return true;
}

// Room to write a body back: the list promises its estimate is enough (the
// reply buffer is sized by it); the request's estimate is known to be short.
size_t writeRoom(const RequestBasicDeviceListMsg&) { return MAX_PACKET_SIZE; }
size_t writeRoom(const BasicDeviceInfo& d) { return d.estimateRequiredSize(); }
size_t writeRoom(const BasicDeviceListMsg& l) { return l.estimateRequiredSize(); }

// Reads the body; one that reads within its caps must write back into the
// room promised for it (fixed points of the bodies are unit-tested).
template <typename Body>
void checkBody(const uint8_t* data, size_t size) {
    Body b;
    const uint8_t* cursor = data;
    size_t left = size;
    const bool ok = b.getFromBuffer(cursor, left);
    FUZZ_CHECK(left <= size && cursor == data + (size - left));
    if (!ok || !textsFit(b)) return;
    std::vector<uint8_t> out(writeRoom(b));
    uint8_t* at = out.data();
    size_t room = out.size();
    FUZZ_CHECK(b.addToBuffer(at, room));
}

void checkBodies(const uint8_t* data, size_t size) {
    checkBody<RequestBasicDeviceListMsg>(data, size);
    checkBody<BasicDeviceInfo>(data, size);
    checkBody<BasicDeviceListMsg>(data, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    checkEveryPack(data, size);
    checkSequencers(data, size);
    checkBodies(data, size);
    return 0;
}
