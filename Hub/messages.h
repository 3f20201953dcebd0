// Handlers of the message traffic from a joined device: carrier pieces going
// up, acknowledgements of pieces sent down, and notification subscriptions.
#pragma once

#include "Hub/Clients.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"

// One piece up: reassembled on the sender's proxy, acknowledged after a gap or
// at the end (before dispatch), then dispatched when complete.
void handleMessagePack(const MessageCarrierPack& pack, const SockAddress& from, ClientProxy& proxy);
// An acknowledgement of a piece sent down; always moves the down-sending on.
void handleMessageACK(const MessageCarrierACKPack& pack, const SockAddress& from, ClientProxy& proxy);
// Subscribes (or unsubscribes) the sending device to a notification of an object.
void handleNotificationSubscription(const NotificationSubscriptionPack& pack, const SockAddress& from,
                                   ClientProxy& proxy);
