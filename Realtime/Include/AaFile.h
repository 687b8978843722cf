/* RAM files: diagnostic buffers of the node published as read-only files through a FUSE mount
 * "fusemnt" in the node directory. */
#ifndef OLM_AAFILE_H
#define OLM_AAFILE_H

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Mounts the registered RAM files at "fusemnt" in the current directory. Returns 0, or -1 when the
 * mount or its service thread cannot be set up. */
int AaFileFUSE_Lite_init(void);

/* Unmounts "fusemnt" and stops its service thread; nothing when nothing is mounted. */
void AaFileFUSE_Lite_terminate(void);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AAFILE_H */
