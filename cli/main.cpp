#include <iostream>

#include "cli/cli_app.h"

int main(int argc, char** argv) { return harborkeeper::cli::runCli(argc, argv, std::cout, std::cerr); }
