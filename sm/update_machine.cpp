#include "sm/update_machine.hpp"
