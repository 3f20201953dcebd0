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
    // Copies all nine fields; returns *this.
    MsgSelector& operator=(const MessageCarrierPack& p);
    // Copies the seven fields an acknowledgement has (not msgSize, checksum);
    // returns *this.
    MsgSelector& operator=(const MessageCarrierACKPack& p);
    // True when the addressing matches as described above, false otherwise.
    bool operator==(const MsgSelector& o) const;
    bool operator!=(const MsgSelector& o) const { return !(*this == o); }
    // Writes all nine fields into the carrier.
    void copyTo(MessageCarrierPack& p) const;
    // Writes the seven fields an acknowledgement has.
    void copyTo(MessageCarrierACKPack& p) const;
};

// Sum of the bytes, each 0-255, in a wrapping unsigned 32-bit value; 0 for a
// null buffer.
uint32_t messageChecksum(const uint8_t* buf, uint32_t size);

// Cuts a message held in the caller's buffer into pieces.
class MsgSequencer {
public:
    // True when the message is taken; false (nothing changed) when one is
    // already loaded, size is 0 or buf is null.
    bool init(const uint8_t* buf, uint32_t size);
    // Copies the next len = min(left(), max) bytes to out and gives their
    // position; true. False (nothing changed) when out or the message is
    // missing or everything has been sent.
    bool getNext(uint8_t* out, uint32_t max, uint32_t& pos, uint32_t& len);
    // Takes pos as acknowledged and resends everything after it; true. False
    // (nothing changed) when pos is beyond the size or the highest byte sent.
    bool resetPosAt(uint32_t pos);
    // Releases the buffer and zeroes every position.
    void clear();
    // True when no message is loaded.
    bool empty() const { return msgBuff == nullptr; }
    // True when everything has been sent and acknowledged.
    bool done() const { return msgBuff != nullptr && left() == 0 && lastPosAcked == sz; }
    // The next position to send.
    uint32_t size() const { return curPos; }
    // Bytes not yet sent from the current position.
    uint32_t left() const { return sz - curPos; }
    // Bytes sent beyond the acknowledged position.
    uint32_t unackBytes() const { return lastByteSent - lastPosAcked; }
    // The message size (0 when empty).
    uint32_t capacity() const { return sz; }

private:
    uint32_t sz = 0;
    uint32_t curPos = 0;
    uint32_t lastPosAcked = 0;
    uint32_t lastByteSent = 0;
    const uint8_t* msgBuff = nullptr;
};

// The sending side of one message. The status is evaluated from currentTime()
// at each call: with minDelay 0 a message goes out in one burst and TIMEOUT is
// reached 250 ms after the last piece without an acknowledgement.
class MsgSender {
public:
    enum SenderStatus { EMPTY = 0, SEND_NOW = 1, DELAYED_SEND = 2, WAITING_FOR_ACK = 3, TIMEOUT = 4, DONE = 5 };
    static constexpr int MaxConssecutiveFailues = 10;  // the spelling is intended

    // Loads a message; the selector gets msgSize = size and the checksum of the
    // bytes, and the failure count restarts. True; false (nothing changed) when
    // a message is already loaded, size is 0 or buf is null.
    bool setNewMessage(const uint8_t* buf, uint32_t size, const MsgSelector& ms);
    // EMPTY without a message, DONE when all is acknowledged, SEND_NOW or
    // DELAYED_SEND while bytes are left, else TIMEOUT or WAITING_FOR_ACK.
    SenderStatus getStatus() const;
    // The sequencer's getNext, recording the piece and its time; same result.
    bool getNext(uint8_t* out, uint32_t max, uint32_t& pos, uint32_t& len);
    // Fills the pack with the full selector and the next piece (at most 326
    // bytes) at packetStart. True when a piece was produced, false otherwise
    // (the selector fields are written either way).
    bool getNextPack(MessageCarrierPack& pack);
    // Takes an acknowledgement up to lastSeqNo for the selector ms: true when
    // the position was taken. False, with "bailaou #1" on standard error, when
    // no message is loaded or it is done; false, with "bailaou #2" and the
    // "INF:"/"MS:" dump, when ms addresses another message; false when the
    // position is beyond the highest byte sent.
    bool processAck(uint32_t lastSeqNo, const MsgSelector& ms);
    // The same for an acknowledgement pack; its dump lines separate all fields
    // with "," and write the category as a raw byte.
    bool processAck(const MessageCarrierACKPack& ack);
    // Counts a failure and goes back to resend the last piece sent (a line on
    // standard output). Returns the result of the reset.
    bool fallbackToLastSentSequence();
    // Counts a failure and resets at the last acknowledgement's time (kept
    // quirk: a time where a position belongs). Returns the result of the reset,
    // in practice false.
    bool resetToLastAckedSequence();
    // Forgets the message, the selector and the times; the failure count stays.
    void clear();
    // True from the eleventh consecutive failure on.
    bool tooManyFailures() const { return consecutiveFailures > MaxConssecutiveFailues; }
    // Milliseconds between pieces (0).
    int32_t getMinDelay() const { return minDelay; }
    // The loaded message's selector (zeroed when empty).
    const MsgSelector& getMsgInfo() const { return inf; }
    // The loaded message's size (0 when empty).
    uint32_t capacity() const { return sequencer.capacity(); }
    // Clock-free parts of getStatus(): true exactly when it would say DONE, and
    // when it would say SEND_NOW or DELAYED_SEND (bytes not yet sent).
    bool isDone() const { return !sequencer.empty() && sequencer.done(); }
    bool hasUnsent() const { return !sequencer.empty() && sequencer.left() > 0; }

private:
    // 1 when an acknowledgement for ms applies, 0 when ms addresses another
    // message, -1 when nothing can be acknowledged; the "bailaou" line is
    // written for the last two.
    int ackApplies(const MsgSelector& ms) const;
    // Records the acknowledgement time; returns the result of the reset.
    bool takeAck(uint32_t lastSeqNo);

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

// Reassembles a message into the caller's buffer. Pieces must arrive from the
// position already held; a piece after a gap is dropped and makes the next
// sendAck report where to resume.
class MsgDesequencer {
public:
    // True when the buffer is taken; false (nothing changed) when one is
    // already held, size is 0 or buf is null.
    bool init(uint8_t* buf, uint32_t size);
    // Copies the piece at pos (cut at the message size) and holds up to its
    // end; true. False when data or the buffer is missing; false and an
    // acknowledgement becomes due when pos is beyond the bytes held.
    bool put(const uint8_t* data, uint32_t pos, uint32_t len);
    // True, with pos = bytes held, when a gap was seen or the message is
    // complete; false otherwise.
    bool sendAck(uint32_t& pos);
    // Checksum of the bytes held (0 when empty).
    uint32_t calcChecksum() const;
    // Releases the buffer and zeroes the positions; a pending acknowledgement
    // stays due.
    void clear();
    // True when no buffer is held.
    bool empty() const { return msgBuff == nullptr; }
    // Bytes still missing.
    uint32_t left() const { return sz - curPos; }
    // Bytes held contiguously from position 0.
    uint32_t size() const { return curPos; }

private:
    uint32_t sz = 0;
    uint32_t curPos = 0;
    uint8_t* msgBuff = nullptr;
    bool mustAck = false;
};

// The receiving side of one message. Acknowledges at the end and after gaps,
// not piece by piece. Nothing here times out a stalled reception; TIMEOUT is
// only reported, 250 ms after the last piece taken.
class MsgReceiver {
public:
    enum RecvStatus { EMPTY = 0, RECEIVING = 1, TIMEOUT = 2, DONE = 3 };

    // The desequencer's init plus the selector; same result (on false nothing
    // changes).
    bool init(uint8_t* buf, uint32_t size, const MsgSelector& ms);
    // The desequencer's put, recording the time; once complete the selector's
    // checksum becomes that of the bytes held. Same result.
    bool put(const uint8_t* data, uint32_t pos, uint32_t len);
    // The desequencer's sendAck; same result.
    bool sendAck(uint32_t& pos) { return sequencer.sendAck(pos); }
    // EMPTY without a buffer, DONE when complete, TIMEOUT when more than 250 ms
    // passed since the last piece taken, else RECEIVING.
    RecvStatus getStatus() const;
    // The selector given to init, with the computed checksum once complete.
    const MsgSelector& getMsgInfo() const { return inf; }
    // Bytes held contiguously from position 0.
    uint32_t size() const { return sequencer.size(); }
    // Forgets the buffer, the selector and the times.
    void clear();

private:
    MsgDesequencer sequencer;
    MsgSelector inf;
    int32_t maxTOWait = 250;  // ms
    Timestamp firstPackT = 0;
    Timestamp lastPackT = 0;
    Timestamp lastAckRecv = 0;
};
