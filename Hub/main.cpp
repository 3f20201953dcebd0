// The hub daemon. For now start-up binds the Velto port on every local address,
// joins the hub's multicast group and then receives and drops datagrams forever.
#include <unistd.h>

#include <cstdint>
#include <iostream>

#include "Velto/UdpSocket.h"

namespace {

const uint16_t VeltoPort = 1881;
const char* const VeltoGroup = "224.68.12.8";
const size_t ReceiveBufferSize = 400;
const uint32_t ReceiveWaitMs = 1000;

// Waits for datagrams, at most ReceiveWaitMs at a time, and drops them. Never
// returns.
void receiveLoop(UdpSocket& sock) {
    uint8_t recvBuffer[ReceiveBufferSize];
    for (;;) {
        std::cout.flush();
        std::cerr.flush();
        SockAddress peer("", 0, nullptr);
        const int bytes = sock.recvWithTo(recvBuffer, sizeof(recvBuffer), &peer, ReceiveWaitMs);
        if (bytes < 0) {
            std::cerr << "Error while receiving \n";
            usleep(100);
        }
    }
}

}  // namespace

int main(int /*argc*/, char** /*argv*/) {
    UdpSocket sock;
    if (!sock.bind(SockAddress("", VeltoPort, nullptr), false)) {
        std::cout << "Failed to bind\n";
        sock.close();
        return 1;
    }
    std::cout << "Successfully bind\n";
    if (sock.joinMCastGroup(SockAddress(VeltoGroup, VeltoPort, nullptr)))
        std::cout << "Successfully joined group\n";
    else
        std::cout << "Failed to join the group\n";
    receiveLoop(sock);
    return 0;
}
