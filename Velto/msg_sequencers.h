// Sequenced transfer of messages longer than one datagram.
//
// A message is cut into pieces of at most 326 bytes, each carried by a
// MessageCarrierPack with the message's addressing (MsgSelector) and the piece's
// byte position; the receiver acknowledges with the position up to which it
// holds the message. These classes do no I/O and own no message buffer: the
// caller moves the packs, schedules the timers and keeps the buffers alive.
// Positions and sizes are byte offsets, unsigned 32-bit. Times are milliseconds
// from currentTime().
#pragma once

#include <cstdint>

#include "Velto/Velto.h"
#include "Velto/platform.h"

// The addressing of one carried message. Equality compares the category, the
// sender and msgId and, unless the category is NOTIFICATION_MSGCAT, the receiver;
// msgNo, msgSize and checksum never take part (intended).
class MsgSelector {
public:
    uint8_t msgCat = 0;
    DeviceID fromDeviceId = 0;
    uint8_t fromObjectNo = 0;
    MessageID msgId = 0;
    DeviceID toDeviceId = 0;
    uint8_t toObjectNo = 0;
    MessageNo msgNo = 0;
    uint32_t msgSize = 0;
    uint32_t checksum = 0;

    MsgSelector() = default;
    MsgSelector& operator=(const MessageCarrierPack& p);     // all nine fields
    MsgSelector& operator=(const MessageCarrierACKPack& p);  // the seven it has
    bool operator==(const MsgSelector& o) const;
    bool operator!=(const MsgSelector& o) const { return !(*this == o); }
    void copyTo(MessageCarrierPack& p) const;
    void copyTo(MessageCarrierACKPack& p) const;
};

// Sum of the bytes, each 0-255, in a wrapping unsigned 32-bit value.
uint32_t messageChecksum(const uint8_t* buf, uint32_t size);

// Cuts a message held in the caller's buffer into pieces.
class MsgSequencer {
public:
    bool init(const uint8_t* buf, uint32_t size);
    bool getNext(uint8_t* out, uint32_t max, uint32_t& pos, uint32_t& len);
    bool resetPosAt(uint32_t pos);
    void clear();
    bool empty() const { return msgBuff == nullptr; }
    bool done() const { return msgBuff != nullptr && left() == 0 && lastPosAcked == sz; }
    uint32_t size() const { return curPos; }
    uint32_t left() const { return sz - curPos; }
    uint32_t unackBytes() const { return lastByteSent - lastPosAcked; }
    uint32_t capacity() const { return sz; }

private:
    uint32_t sz = 0;
    uint32_t curPos = 0;
    uint32_t lastPosAcked = 0;
    uint32_t lastByteSent = 0;
    const uint8_t* msgBuff = nullptr;
};

// The sending side of one message.
class MsgSender {
public:
    enum SenderStatus { EMPTY = 0, SEND_NOW = 1, DELAYED_SEND = 2, WAITING_FOR_ACK = 3, TIMEOUT = 4, DONE = 5 };
    static constexpr int MaxConssecutiveFailues = 10;

    bool setNewMessage(const uint8_t* buf, uint32_t size, const MsgSelector& ms);
    SenderStatus getStatus() const;
    bool getNext(uint8_t* out, uint32_t max, uint32_t& pos, uint32_t& len);
    bool getNextPack(MessageCarrierPack& pack);
    bool processAck(uint32_t lastSeqNo, const MsgSelector& ms);
    bool processAck(const MessageCarrierACKPack& ack);
    bool fallbackToLastSentSequence();
    bool resetToLastAckedSequence();
    void clear();
    bool tooManyFailures() const { return consecutiveFailures > MaxConssecutiveFailues; }
    int32_t getMinDelay() const { return minDelay; }
    const MsgSelector& getMsgInfo() const { return inf; }
    uint32_t capacity() const { return sequencer.capacity(); }

private:
    MsgSequencer sequencer;
    MsgSelector inf;
    int32_t minDelay = 0;      // ms between pieces
    int32_t maxACKWait = 250;  // ms to wait for an acknowledgement
    Timestamp firstPackT = 0;
    Timestamp lastPackT = 0;
    Timestamp lastAckRecv = 0;
    uint32_t lastSentPos = 0;
    uint32_t lastSentSz = 0;
    int32_t consecutiveFailures = 0;
};

// Reassembles a message into the caller's buffer.
class MsgDesequencer {
public:
    bool init(uint8_t* buf, uint32_t size);
    bool put(const uint8_t* data, uint32_t pos, uint32_t len);
    bool sendAck(uint32_t& pos);
    uint32_t calcChecksum() const;
    void clear();
    bool empty() const { return msgBuff == nullptr; }
    uint32_t left() const { return sz - curPos; }
    uint32_t size() const { return curPos; }

private:
    uint32_t sz = 0;
    uint32_t curPos = 0;
    uint8_t* msgBuff = nullptr;
    bool mustAck = false;
};

// The receiving side of one message.
class MsgReceiver {
public:
    enum RecvStatus { EMPTY = 0, RECEIVING = 1, TIMEOUT = 2, DONE = 3 };

    bool init(uint8_t* buf, uint32_t size, const MsgSelector& ms);
    bool put(const uint8_t* data, uint32_t pos, uint32_t len);
    bool sendAck(uint32_t& pos) { return sequencer.sendAck(pos); }
    RecvStatus getStatus() const;
    const MsgSelector& getMsgInfo() const { return inf; }
    uint32_t size() const { return sequencer.size(); }
    void clear();

private:
    MsgDesequencer sequencer;
    MsgSelector inf;
    int32_t maxTOWait = 250;  // ms
    Timestamp firstPackT = 0;
    Timestamp lastPackT = 0;
    Timestamp lastAckRecv = 0;
};
