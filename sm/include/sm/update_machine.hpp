// Placeholder until the machine lands.
#pragma once
#include "sm/update_helper.hpp"
