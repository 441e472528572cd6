#include "tests/motion/FakeStagePage.h"
