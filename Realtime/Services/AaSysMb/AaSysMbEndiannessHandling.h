// Brings a current broker command's header, and for APF 0 and 1 a publication's payload, into this
// node's byte order.
//
// The Dispatcher's receive path has already turned payloads of APF 0 (big-endian words) into host
// words before the proxy sees them, so what still arrives in the other byte order here is a command
// of APF 2: its header fields are each in big-endian order at their own offsets (the five words at
// 0 to 16 and the word at 24 as 32-bit values, id and size as 16-bit values), and its payload is
// the application's to convert.
#pragma once

// msg must be a current command (MsgFromOldImplementation 0) of a broker id; others are left alone.
void HandleMessageEndianness(void* msg);
