#include "service/service_entry.h"

int main(int argumentCount, char** arguments) {
  return RunProcess(argumentCount, arguments);
}
