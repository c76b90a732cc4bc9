#include "commands/Families.h"

void RegisterAllCommandFamilies(CCommandTable& table) {
  RegisterGeneralCommands(table);
  RegisterSessionCommands(table);
}
