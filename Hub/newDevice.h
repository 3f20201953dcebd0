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

void handleNewBaby(const NewBornDevicePack& pack, const SockAddress& from, UdpSocket& sock);
void handleDomainJoin(const NetworkJoinPack& pack, const SockAddress& from, UdpSocket& sock);

// Stamps packetNo from one process-wide counter (then increments it) and hubId
// with serverNodeId, serialises into 400 bytes and sends. True when more than 0
// bytes were sent.
bool sendPacketTo(const SockAddress& to, UdpSocket& sock, VeltoPacket& pack);
