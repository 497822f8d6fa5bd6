#include "run/quon_main.h"

int main(int argc, char** argv) { return quon_main(argc, argv); }
