/* What libOlmLiteRt exports.
 *
 * The library is built with hidden visibility: nothing of it is visible to EU libraries and the
 * hosting executable unless a public header (this directory, installed as include/OlmLiteRt)
 * declares it between OLM_API_BEGIN and OLM_API_END. So the public headers are the whole interface,
 * and a test compares the library's dynamic symbols with them. */
#ifndef OLM_OLMAPI_H
#define OLM_OLMAPI_H

#define OLM_API_BEGIN _Pragma("GCC visibility push(default)")
#define OLM_API_END _Pragma("GCC visibility pop")

#endif /* OLM_OLMAPI_H */
