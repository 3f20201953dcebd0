// The hub daemon: binds the Velto port, joins the hub's multicast group,
// registers the hub's own services as node 1 and runs the loop until SIGTERM
// or SIGINT; then writes every device record out and exits 0. Exits 1 when the
// port cannot be bound. Arguments are ignored. Started by a service manager
// (NOTIFY_SOCKET set), it reports readiness, keep-alives and its stop.
#include <iostream>

#include "Hub/HubConsoleConnector.h"
#include "Hub/server.h"
#include "Hub/service_notify.h"
#include "Velto/UdpSocket.h"
#include "Velto/platform.h"

int main(int, char**) {
    setUpBufferedOutput();
    installStopSignalHandlers();

    UdpSocket sock;
    if (!sock.bind(SockAddress("", HUB_PORT, nullptr), false)) {
        std::cout << "Failed to bind\n";
        sock.close();
        flushOutput();
        return 1;
    }
    std::cout << "Successfully bind\n";  // kept: the wording as it stands
    // Room for the answers to a burst of probes to thousands of devices.
    sock.setReceiveBuffer(HUB_RECEIVE_BUFFER_BYTES);
    if (sock.joinMCastGroup(SockAddress(HUB_MCAST_GROUP, HUB_PORT, nullptr)))
        std::cout << "Successfully joined group\n";
    else
        std::cout << "Failed to join the group\n";

    clientMgr.addVirtualClient(1, new HubMainServices());

    if (serviceNotifier().enabled()) flushOutput();  // the start-up lines go out before the readiness
    serviceNotifier().notify("READY=1");
    mainThread(sock);

    serviceNotifier().notify("STOPPING=1");
    specDb.stopDownloads();  // a download under way is abandoned, not waited for
    clientMgr.flushAll();
    flushOutput();
    return 0;
}
