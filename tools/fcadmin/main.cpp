// fcadmin: the command-line tool over the library's services.
#include "tools/fcadmin/command.h"

int main(int argc, char **argv) { return fcadmin_tool::tool_main(argc, argv); }
