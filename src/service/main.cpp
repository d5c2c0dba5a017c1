#include "provisor.h"

int main(int argc, char** argv) { return provisorMain(argc, argv); }
