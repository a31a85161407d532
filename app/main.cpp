#include "app/EntryRoutine.h"

int main(int argc, char** argv) { return ferrolt::RunFerrolt(argc, argv); }
