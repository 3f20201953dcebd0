// Configuration exchange and liveness answers, for packs from a joined device.
//
// ConfigSummary -> GetObjectInfo 0 -> ObjectInfo 0 -> ... -> ObjectInfo n-1 ->
// activation (rights loaded, documents fetched off the loop, see Activation.h)
// and ConfigurationComplete. The next object is asked
// for only when the previous one arrived; nothing here repeats a request.
// Pings are answered with a pong; pings and pongs both end the liveness probe.
#pragma once

#include "Hub/Clients.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"

void handleConfigSummary(const ConfigSummaryPack& pack, const SockAddress& from, ClientProxy& proxy);
void handleObjectInfo(const ObjectInfoPack& pack, const SockAddress& from, ClientProxy& proxy);
void handlePingPong(const PingPongPack& pack, const SockAddress& from, ClientProxy& proxy);
// Tells the device its configuration is complete: the hub's time and both
// sequence numbers (hub2DevSequence equals this pack's own packetNo).
void sendConfigurationComplete(ClientProxy& proxy);
