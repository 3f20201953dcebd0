#include "Hub/configuration.h"

#include <iostream>

#include "Hub/Activation.h"
#include "Velto/platform.h"

namespace {

void requestObject(ClientProxy& proxy, uint8_t objectNo) {
    GetObjectInfoPack get;
    get.objectNo = objectNo;
    proxy.sendPacketToDevice(get);
}

ObjectInfo objectFromPack(const ObjectInfoPack& pack) {
    ObjectInfo info;
    info.objectNo = pack.objectNo;
    info.groupNo = pack.groupNo;
    info.ifaceType = pack.ifaceType;
    info.hardName = pack.name.str();
    info.interface = pack.interface.str();
    info.nParam1 = pack.nParam1;
    info.nParam2 = pack.nParam2;
    info.sParam1 = pack.sParam1.str();
    info.sParam2 = pack.sParam2.str();
    info.lnParam = pack.lnParam;
    return info;
}

}  // namespace

void sendConfigurationComplete(ClientProxy& proxy) {
    ConfigurationCompletePack done;
    done.serverTimestamp = currentTime();
    done.dev2HubSequence = proxy.record().fromDeviceSequence;
    // Read before sending: equals the packetNo this very pack will carry.
    done.hub2DevSequence = proxy.record().toDeviceSequence;
    proxy.sendPacketToDevice(done);
}

void handleConfigSummary(const ConfigSummaryPack& pack, const SockAddress&, ClientProxy& proxy) {
    std::cout << "Received Config Summary. No of objects=" << unsigned(pack.noOfObjects) << '\n';
    NodeStatusInfo& st = proxy.status();
    st.noOfObjects = pack.noOfObjects;
    st.maxNoOfObjects = pack.maxNoOfObjects;
    if (st.maxNoOfObjects < st.noOfObjects) st.maxNoOfObjects = st.noOfObjects;
    requestObject(proxy, 0);  // objects already held are kept
}

void handleObjectInfo(const ObjectInfoPack& pack, const SockAddress&, ClientProxy& proxy) {
    std::cout << "Received ObjectInfo for objectNo: " << unsigned(pack.objectNo) << " group: " << unsigned(pack.groupNo)
              << " type: " << unsigned(pack.ifaceType) << " name: " << pack.name.c_str()
              << " interface: " << pack.interface.c_str() << '\n';
    if (!proxy.setObjectInfo(objectFromPack(pack))) {
        // Kept: the number goes out as one raw byte, not as digits.
        std::cerr << "Failed to setObjectInfo for objectNo=" << static_cast<char>(pack.objectNo) << '\n';
    }
    // Compared with the size of the table, not with the number just received.
    size_t next = proxy.noOfObjects();
    std::cout << "DBG: proxy.status().noOfObjects=" << unsigned(proxy.status().noOfObjects)
              << " > nextObjectNo=" << next << '\n';
    if (proxy.status().noOfObjects > next) {
        requestObject(proxy, static_cast<uint8_t>(next));
        std::cout << "DBG: Sent to recv objectNo: " << next << '\n';
        return;
    }
    // The table is complete: the device becomes CONNECTED and is told so,
    // once the documents its rights come from are at hand.
    pendingActivations().start(proxy);
}

void handlePingPong(const PingPongPack& pack, const SockAddress&, ClientProxy& proxy) {
    if (pack.pingOrPong != PingPongPack::PING) {
        proxy.handlePong();
        return;
    }
    PingPongPack reply;
    reply.pingOrPong = PingPongPack::PONG;
    reply.replyKey = pack.replyKey;  // kept: its own replyKey is echoed, not its random
    uint64_t r = 0;
    randomNumber(r);
    reply.random = r;
    proxy.handlePong();
    proxy.sendPacketToDevice(reply);
}
