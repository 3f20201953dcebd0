// The hub's side of the adoption and join handshake.
//
// A NewBornDevicePack is answered with an AdoptionOfferPack; a NetworkJoinPack
// for the hub's domain turns the newcomer into a device session and is answered
// with a JoinAcceptedPack carrying the node id and the session key, transformed
// under SHA-1(clientRand, main key, svrRand). Refusals are one line on standard
// error and no answer. Main thread only.
#pragma once

#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"

// Finds or makes the newcomer of this address and DUID and sends it an offer
// (signed with its main key when that holds more than 4 bytes); the newcomer's
// state becomes ADOPTION_SENT. Nothing is sent when no newcomer can be had.
void handleNewBaby(const NewBornDevicePack& pack, const SockAddress& from, UdpSocket& sock);
// For the hub's domain (exact comparison) makes the newcomer a device session
// (state INITIALIZING), makes sure it has a session key of at least 16 bytes
// (a new 32-byte one is saved with the record) and sends the acceptance. A
// main key shorter than 4 bytes is replaced by 20 zero bytes (trust 0).
// Refusals send nothing. `sock` must outlive the session (it is kept by it).
void handleDomainJoin(const NetworkJoinPack& pack, const SockAddress& from, UdpSocket& sock);

// Stamps packetNo from one process-wide counter (then increments it) and hubId
// with serverNodeId, serialises into 400 bytes and sends. True when more than 0
// bytes were sent; false when the pack does not fit or the send fails (the
// number is used all the same).
bool sendPacketTo(const SockAddress& to, UdpSocket& sock, VeltoPacket& pack);
