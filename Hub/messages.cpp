#include "Hub/messages.h"

#include <iostream>

#include "Hub/DeviceManager.h"
#include "Hub/log_line.h"
#include "Hub/server.h"

namespace {

void sendPieceAck(const MessageCarrierPack& pack, uint32_t ackPos, ClientProxy& proxy) {
    MessageCarrierACKPack ack;
    ack.devId = pack.devId;
    ack.msgCat = pack.msgCat;
    ack.fromDeviceId = pack.fromDeviceId;
    ack.fromObjectNo = pack.fromObjectNo;
    ack.msgId = pack.msgId;
    ack.toDeviceId = pack.toDeviceId;
    ack.toObjectNo = pack.toObjectNo;
    ack.msgNo = pack.msgNo;
    ack.lastSeqNo = ackPos;
    proxy.sendPacketToDevice(ack);
}

void refuseSubscription(const NotificationSubscriptionPack& pack, ClientProxy& proxy) {
    MessageErrorPack err;
    err.errorCode = MessageErrorPack::PERMISSION_DENIED;
    err.category = NOTIFICATION_MSGCAT;
    err.fromNodeId = pack.nodeId;
    err.fromObjectNo = pack.objectNo;
    err.msgId = pack.eventId;
    err.toNodeId = pack.devId;
    err.toObjectNo = 0;
    proxy.sendPacketToDevice(err);
}

}  // namespace

void handleMessagePack(const MessageCarrierPack& pack, const SockAddress&, ClientProxy& proxy) {
    MsgSelector ms;
    ms = pack;
    uint32_t ackPos = 0;
    ClientProxy::MsgStatus st = proxy.putMsgPacket(ms, pack.packetStart, pack.msgSize, pack.payload.data(),
                                                   static_cast<uint32_t>(pack.payload.size()), ackPos);
    if (st == ClientProxy::MSG_ERROR) return;  // refused, no answer
    if (st == ClientProxy::MSG_OK_ACK) sendPieceAck(pack, ackPos, proxy);  // the ack goes before the dispatch
    proxy.attemptToDispatch();
}

void handleMessageACK(const MessageCarrierACKPack& pack, const SockAddress&, ClientProxy& proxy) {
    LogLine(std::cout) << "Received Message ack for seqNo=" << pack.lastSeqNo << " msgNo " << pack.msgNo
                       << " INF:" << pack.fromDeviceId << "," << unsigned(pack.fromObjectNo) << "," << pack.msgId
                       << "," << pack.toDeviceId << "," << unsigned(pack.toObjectNo) << '\n';
    MsgSelector ms;
    ms = pack;
    if (!proxy.processACK(pack.lastSeqNo, ms)) {
        // Kept: no blank before "from".
        LogLine(std::cout) << "Failed to process ack for seqNo=" << pack.lastSeqNo << " to msg=" << pack.msgId
                           << "from nodeId=" << pack.devId << " obj=" << unsigned(pack.fromObjectNo) << '\n';
    }
    proxy.downSendNextSequence();
}

void handleNotificationSubscription(const NotificationSubscriptionPack& pack, const SockAddress&,
                                   ClientProxy& proxy) {
    MessageTargetInterface* target = clientMgr.getMessageTarget(pack.nodeId);
    if (target == nullptr) {
        std::cerr << "Failed to find proxy for devId=" << pack.devId << " node=" << pack.nodeId << '\n';
        return;
    }
    std::cout << "Subscribe dev=" << pack.devId << " to  event=" << pack.eventId << " nodeId=" << pack.nodeId
              << " obj=" << unsigned(pack.objectNo) << '\n';
    bool subscribe = pack.subscribe == 1;
    if (subscribe) {
        uint8_t granted = securityMgr.accessRightsForNotiSubscription(pack.nodeId, pack.objectNo, pack.eventId,
                                                                      pack.devId, proxy.record().trust);
        uint8_t required = target->requiredNotificationAccess(pack.objectNo, pack.eventId);
        if (granted < required) {
            refuseSubscription(pack, proxy);
            return;
        }
    }
    // Any value other than 1 unsubscribes, and that is always allowed.
    target->subscribeToNotification(pack.objectNo, pack.eventId, pack.devId, subscribe);
}
