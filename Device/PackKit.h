// Ready-made packs and exchanges for the programs that play a device from the
// outside (the tests, the fuzz seed generator, the load generators): the packs
// a device sends, filled in; a whole message cut into carrier pieces; the
// acknowledgement of a message; and the wire bytes of any pack. Builds on the
// protocol library's pack classes only; nothing here does I/O or prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Velto/Velto.h"
#include "Velto/msg_sequencers.h"

namespace packkit {

typedef std::vector<uint8_t> Bytes;

// n key bytes: first, first + step, first + 2 * step, ... (mod 256); n <= 32.
ByteArray<32> keyBytes(size_t n, uint8_t first, uint8_t step = 0);
// n bytes that differ from message to message (seed) and along the message.
Bytes pattern(size_t n, uint8_t seed);

// Stamps the header (devId, packetNo) and writes the pack into out (signed
// when its signature was keyed). Returns the byte count, -1 when it does not
// fit cap.
int encodeInto(VeltoPacket& p, DeviceID dev, uint32_t packetNo, uint8_t* out, size_t cap);
// The wire bytes of p as it stands; empty when it does not fit 400 bytes.
Bytes encode(VeltoPacket& p);
// The same after stamping devId and packetNo and, for sigType > 0, keying the
// signature with key (keyLen bytes).
Bytes encode(VeltoPacket& p, DeviceID dev, uint32_t packetNo, uint8_t sigType = 0, const uint8_t* key = nullptr,
             size_t keyLen = 0);

// The packs of a joining device. The join request names the hub at
// 127.0.0.1:1881 and uses the DUID as the node name; the summary announces
// noOfObjects objects, 400-byte packs and 4096-byte messages.
NewBornDevicePack newBorn(const std::string& duid, const std::string& specs);
NetworkJoinPack joinRequest(const std::string& duid, const std::string& domain, uint64_t clientRand);
ConfigSummaryPack configSummary(const std::string& duid, uint8_t noOfObjects);
ObjectInfoPack objectInfo(uint8_t objectNo, const std::string& name, const std::string& iface);
// A ping or pong (PingPongPack::PING / PONG) echoing replyKey.
PingPongPack ping(uint8_t kind, uint64_t replyKey);

MsgSelector selector(uint8_t msgCat, DeviceID from, uint8_t fromObj, MessageID msgId, DeviceID to, uint8_t toObj,
                     MessageNo msgNo);
// The piece of the message body[0, size) that starts at byte start (at most
// 326 bytes), with the whole message's size and checksum.
MessageCarrierPack carrier(const MsgSelector& ms, const uint8_t* body, uint32_t size, uint32_t start);
// Every piece of the message in order, as the protocol's sender cuts it.
std::vector<MessageCarrierPack> pieces(const MsgSelector& ms, const Bytes& body);
// The acknowledgement of the message ms up to lastSeqNo.
MessageCarrierACKPack ackOf(const MsgSelector& ms, uint32_t lastSeqNo);
// The acknowledgement of the whole message a received piece belongs to.
MessageCarrierACKPack ackOf(const MessageCarrierPack& piece);

}  // namespace packkit
