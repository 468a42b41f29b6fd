#include "lv.h"
int main() { return 0; }
