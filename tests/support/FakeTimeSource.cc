#include "FakeTimeSource.h"
