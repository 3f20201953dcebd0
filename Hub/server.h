// The hub's process-wide objects and its main loop.
//
// The globals are built before main in this order: myDomain, clientsDb and
// specDb (both on "DB" in the working directory), clientMgr, securityMgr;
// serverNodeId is the hub's own node id written into every packet it sends.
// mainThread waits for datagrams (never longer than the next timed event or one
// second), classifies each by pack id and sender, checks its signature and
// hands it to its handler; it also runs the due timed events, the clean-up
// every 1000 ms and the flush every 15050 ms. Times are milliseconds from
// currentTime(). Output is buffered and reaches its stream when the buffer is
// full or the loop goes idle (no datagram for 100 us) before it waits for the
// next one. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Hub/Database/ClientsDB.h"
#include "Hub/Database/SpecsDB.h"
#include "Hub/DeviceManager.h"
#include "Hub/MessageSecurity.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"
#include "Velto/platform.h"

extern std::string myDomain;
extern ClientsDatabase clientsDb;
extern SpecsDB specDb;
extern ClientManager clientMgr;
extern MessageSecurityMgr securityMgr;
extern HubID serverNodeId;

constexpr uint16_t HUB_PORT = 1881;
extern const char* const HUB_MCAST_GROUP;      // "224.68.12.8"
constexpr uint32_t MaxCleanupInterval = 1000;  // ms between clean-ups; also the event look-ahead and the longest wait
constexpr uint32_t FlushInterval = 15050;      // ms between record flushes (the odd value is the designed one)
constexpr size_t RECV_BUFFER_SIZE = 400;       // longer datagrams are cut to this by the socket
constexpr int HUB_RECEIVE_BUFFER_BYTES = 4 << 20;  // the socket's queue of received datagrams

// Test hook: the flush interval the loop uses, read once when mainThread
// starts. 15050 unless the environment variable VELTO_FLUSH_INTERVAL_MS holds a
// whole decimal number from 1 to 15050 (nothing else in it), which is then
// taken instead; only the fault tests set it, to get many flushes quickly.
// Prints nothing.
uint32_t flushIntervalFromEnvironment();

// The loop. Returns only after stopMainThread() (or a SIGTERM/SIGINT handler
// installed by installStopSignalHandlers) was called, having finished the pass
// in hand (the datagram in hand included).
void mainThread(UdpSocket& sock);
// Async-signal-safe: asks mainThread to return after the current pass.
void stopMainThread();
// True once stopMainThread() was called (or a stop signal arrived).
bool mainThreadStopRequested();
// Makes SIGTERM and SIGINT call stopMainThread(); the handlers do not restart
// an interrupted wait, so the loop notices at once. Returns false when the
// system refuses a handler.
bool installStopSignalHandlers();

// Output set-up of the daemon (main calls it first): standard output gets a
// large buffer of its own, standard error is buffered too and untied from
// standard output, so that a log line costs no system call; flushOutput()
// writes them out. Returns nothing; cannot fail.
void setUpBufferedOutput();
// Flushes standard output and standard error (the loop calls it before it
// waits for a datagram).
void flushOutput();

// The timed events taken out of the manager's heap and not yet fired. Each
// pass takes the events due within the next 1000 ms; the batch is walked only
// when its first element is due, so a later due element waits until the first
// one is due too (at most one second).
class EventBatch {
public:
    // Retrieves the events due by now + 1000 and, when the first pending one is
    // due at now, fires every pending event due at now (in order) and keeps the
    // others pending in their order. Returns a fresh clock reading when the batch
    // was walked, otherwise now.
    Timestamp runDue(Timestamp now);
    // now + 1000, or the first pending event's due time when that is earlier.
    Timestamp nextEventTime(Timestamp now) const;
    const std::vector<EventEntry>& pending() const { return pendingEvents; }

private:
    std::vector<EventEntry> pendingEvents;
    std::vector<EventEntry> leftOverEvents;
};

// Classifies one received datagram and dispatches it (what the loop calls for
// every datagram; also the entry point for tests). Never fails: bad datagrams
// are logged or dropped.
void handleDatagram(const uint8_t* data, size_t bytes, const SockAddress& peer, UdpSocket& sock);
// Dispatch of a datagram from a node that must have a client record; header is
// the envelope already read from data.
void handleConnectedMsgs(const VeltoPacket& header, const uint8_t* data, size_t size, const SockAddress& peer,
                         UdpSocket& sock);
// The hook for pack ids without a handler: does nothing (dropped silently).
void handleUnknownMsgs(const VeltoPacket& header, const uint8_t* data, size_t size, const SockAddress& peer,
                       UdpSocket& sock);
// Fires one timed event: DESTROY_DEVICE destroys the device, any other kind goes
// to the device's proxy; events of unknown devices are dropped. now is unused.
void handleEvent(const EventEntry& e, Timestamp now);
