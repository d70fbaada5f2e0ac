#include "rpc/service_ports.h"

SServicePorts& ServicePorts() noexcept {
  static SServicePorts ports;
  return ports;
}
