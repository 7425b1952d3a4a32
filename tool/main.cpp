#include "tool/cli/commands.h"

int main(int count, char** arguments) {
    return tool::RunProgram(count, arguments);
}
