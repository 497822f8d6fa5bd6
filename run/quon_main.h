// Program entry: options, the result file, the choice of mode and the walk
// over the input files.
#pragma once

int quon_main(int argc, char** argv);
