#include "tests/support/site_recorder.inc"
