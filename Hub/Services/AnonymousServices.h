// Service object 0 of the hub's own node: accepts and ignores everything.
// deliverMessage and deviceHadBeenRemoved do nothing; subscribeToNotification
// returns false.
#pragma once

#include "Hub/HubConsoleConnector.h"

class AnonymousServices : public VirtualClientObjectInterface {
public:
    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data, unsigned int size) override;
    bool subscribeToNotification(unsigned short msgId, unsigned short subscriber, bool subscribe) override;
    void deviceHadBeenRemoved(unsigned short deviceId) override;
};
