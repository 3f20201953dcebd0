// The hub's process-wide objects and its main loop.
//
// The globals are built before main in this order: myDomain, clientsDb and
// specDb (both on "DB" in the working directory), clientMgr, securityMgr;
// serverNodeId is the hub's own node id written into every packet it sends.
// mainThread waits for datagrams (never longer than the next timed event or one
// second), classifies each by pack id and sender, checks its signature and
// hands it to its handler; it also runs the due timed events, the clean-up
// every 1000 ms and the flush every 15050 ms. Output is buffered and flushed
// before every wait that can block. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Hub/Database/ClientsDB.h"
#include "Hub/Database/SpecsDB.h"
#include "Hub/DeviceManager.h"
#include "Hub/MessageSecurity.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"

extern std::string myDomain;
extern ClientsDatabase clientsDb;
extern SpecsDB specDb;
extern ClientManager clientMgr;
extern MessageSecurityMgr securityMgr;
extern HubID serverNodeId;

constexpr uint16_t HUB_PORT = 1881;
extern const char* const HUB_MCAST_GROUP;  // "224.68.12.8"
constexpr uint32_t MaxCleanupInterval = 1000;  // ms between clean-ups; also the longest wait
constexpr uint32_t FlushInterval = 15050;      // ms between record flushes (the odd value is the designed one)

// The loop. Returns only after stopMainThread() (or a SIGTERM/SIGINT handler
// calling it), having finished the datagram in hand.
void mainThread(UdpSocket& sock);
// Async-signal-safe: asks mainThread to return after the current pass.
void stopMainThread();
bool mainThreadStopRequested();

// Classifies one received datagram and dispatches it (what the loop calls for
// every datagram; also the entry point for tests and fuzzing).
void handleDatagram(const uint8_t* data, size_t bytes, const SockAddress& peer, UdpSocket& sock);
void handleConnectedMsgs(const VeltoPacket& header, const uint8_t* data, size_t size, const SockAddress& peer,
                         UdpSocket& sock);
void handleUnknownMsgs(const VeltoPacket& header, const uint8_t* data, size_t size, const SockAddress& peer,
                       UdpSocket& sock);
void handleEvent(const EventEntry& e, Timestamp now);

// Flushes standard output and standard error (the loop calls it before waiting).
void flushOutput();
