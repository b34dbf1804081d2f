// The link's soak: the faults of a misbehaving service that the transfer client's suite runs once
// each, over and over for PELK_SOAK_SECONDS, with nothing left behind (tools/soak.sh).
#define PELK_LINK_SOAK
#include "transfer_client_test.cpp"
