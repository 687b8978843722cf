// An EU library that forgot its entry point: start-up reports it and carries on.
extern "C" int OlmNoEntryTestEuPresent() { return 1; }
