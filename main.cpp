// quorvixd: reads as the order of starting up.

#include "platform/Platform.h"
#include "service/Service.h"

int main() { return 0; }
