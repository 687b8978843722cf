/* The history log as text.
 *
 * A node keeps its recent operations in the RAM file "<nid in hex>_HistoryLog.bin" (for --nid
 * 0x1a2b: "1a2b_HistoryLog.bin" in the node directory's "fusemnt"), a ring of 88-byte binary
 * records. These functions write such a file as text, one line per record in ring order (from the
 * first slot, not from the oldest record: after the ring has wrapped the text jumps back in time
 * at the write position):
 *
 *   *********** History Log *************
 *   [0012,0345,07,01234] (0701)->Send(0x7f12a4c0) {Id:0b01 Target:10110702 Sender:10110701} (UNKNOWN)
 *   ...
 *   *********** End history *************
 *
 * Lines carry the LTE time (hyper frame, frame, slot, basic time unit); long texts continue the line
 * of their first part. Records never written are skipped. */
#ifndef OLM_HISTORYLOGDUMP_H
#define OLM_HISTORYLOGDUMP_H

#include "OlmApi.h"

OLM_API_BEGIN

namespace Olm {

/* Writes the history log file inputPath as text to outputPath (created or truncated). Formats and
 * texts are read where the records say, so the file must come from this very process (or the
 * library's own lines of an identical one): a record of another process may crash the caller. A
 * record whose time lies beyond the LTE cycle ends the process (assertion "m_samples < MaxSamples").
 * Nothing is written when either file cannot be opened. Not thread-safe against the Dispatcher
 * writing the same ring (a record may be read half written). */
void outputHistoryLog(const char* inputPath, const char* outputPath);

/* The same for a history log written by another process, such as a copy of a node's RAM file or
 * the file extracted from its core (AaFile_parseCoreFile): only formats and texts that lie in
 * this library's read-only data are read, so the writer must have run this same libOlmLiteRt
 * build; any other format is written as "<format +0x...>" with the record's words in hex, any
 * other text as "<text +0x...>" (distances from this library's anchor). A time beyond the LTE cycle
 * (a record half written) is written as "[????,????,??,?????] ". Never reads outside the file and
 * the library. Returns 0; -1 when inputPath or outputPath is null or cannot be opened. */
int outputHistoryLogOffline(const char* inputPath, const char* outputPath);

}  // namespace Olm

OLM_API_END

#endif /* OLM_HISTORYLOGDUMP_H */
