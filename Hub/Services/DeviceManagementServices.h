// Service object 1 of the hub's own node: answers device-list requests.
//
// A RequestBasicDeviceListMsg (message id 1) is answered with one direct
// message, a BasicDeviceListMsg (id 2), describing every device proxy and then
// every virtual client, in ascending id order, queued on the requester's proxy
// for sequenced transfer. An object-information request (id 3) is answered
// the same way with a BasicObjectInfoMsg (id 4): the node's objects and the
// interface identifiers its stored specification names (never downloaded).
// Reply numbers start at 1 and are shared by both replies.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Hub/HubConsoleConnector.h"
#include "Velto/Interfaces/DeviceManagementInterface.h"

class DeviceManagementServices : public VirtualClientObjectInterface {
public:
    // By ms.msgId: 1 getDevList, 3 getObjList, anything else only a log line;
    // the "DeviceManagementServices::deliverMessage() ..." line follows the handling.
    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data, unsigned int size) override;
    // Returns false: the service publishes nothing.
    bool subscribeToNotification(unsigned short msgId, unsigned short subscriber, bool subscribe) override;
    // Does nothing.
    void deviceHadBeenRemoved(unsigned short deviceId) override;

    // Decodes the request (on failure: an error line and replyWithError code 1
    // through the proxy of toDeviceId, kept) and queues the list on the proxy of
    // fromDeviceId; no reply when that proxy does not exist or the list does not
    // encode. data must hold size bytes (null when size is 0).
    void getDevList(uint16_t fromDeviceId, uint8_t fromObjectNo, uint16_t msgId, uint16_t toDeviceId,
                    uint8_t toObjectNo, std::shared_ptr<unsigned char>& data, unsigned int size);
    // Decodes the request (on failure: an error line and replyWithError code 1,
    // as for getDevList) and queues the objects of the node asked about on the
    // proxy of fromDeviceId (none for an unknown node); no reply when that proxy
    // does not exist.
    void getObjList(uint16_t fromDeviceId, uint8_t fromObjectNo, uint16_t msgId, uint16_t toDeviceId,
                    uint8_t toObjectNo, std::shared_ptr<unsigned char>& data, unsigned int size);
    // Accepts every client: the request's filters are carried but not applied.
    bool matchRequest(const ClientDBRec& rec, const NodeStatusInfo& status, const RequestBasicDeviceListMsg& req);
    // Sends a MessageErrorPack through the proxy of fromNodeId, when there is one.
    void replyWithError(uint8_t category, uint16_t fromNodeId, uint8_t fromObjectNo, uint16_t msgId,
                        uint16_t toNodeId, uint8_t toObjectNo, uint32_t errorCode, const std::string& text);

    // The msgNo the next reply will carry (1 at first).
    MessageNo nextReplyNumber() const { return messageCounter; }

private:
    // Encodes body into a buffer sized by its estimate and queues it on the
    // requester as reply replyId, numbered from messageCounter; nothing is sent
    // when it does not encode.
    template <typename Msg>
    void queueReply(const Msg& body, MessageID replyId, uint16_t fromDeviceId, uint8_t fromObjectNo,
                    uint16_t toDeviceId, uint8_t toObjectNo, ClientProxy& requester);

    MessageNo messageCounter = 1;
};
