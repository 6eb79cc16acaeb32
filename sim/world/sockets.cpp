#include "sim/world/world.h"

void CloseSocketsOf(int) {}
int CountSocketsOf(int)
{
    return 0;
}
void SimPartition(int, int, SimTime) {}
