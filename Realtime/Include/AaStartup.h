/* Start-up of the platform services once the Dispatcher and the tag database exist. */
#ifndef OLM_AASTARTUP_H
#define OLM_AASTARTUP_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Starts the services of the EE phase; the last step mounts the RAM files in the current directory
 * (AaFileFUSE_Lite_init). Returns 0, or (uint32_t)-1 when the mount fails. */
uint32_t AaStartupEeStartup(void);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AASTARTUP_H */
