// rhyddal-cdma-sync: sets the CDMA synchronisation mode and asynchronous offset that every node of
// this host reads (Platform/Host/README.md).
#include <cstdio>

#include "BtsTimeSync.h"

int main(int argc, char** argv) { return rhyddal::cdmaSyncTool(argc, argv, stdout, stderr); }
