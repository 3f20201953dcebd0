// Object 0 of the hub's own node: a sink that accepts and ignores everything.
#include "Hub/Services/AnonymousServices.h"

void AnonymousServices::deliverMessage(const MsgSelector&, std::shared_ptr<unsigned char>&, unsigned int) {}

bool AnonymousServices::subscribeToNotification(unsigned short, unsigned short, bool) { return false; }

void AnonymousServices::deviceHadBeenRemoved(unsigned short) {}
