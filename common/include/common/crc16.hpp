// CRC-16/CCITT-FALSE (polynomial 0x1021, initial 0xFFFF, no reflection, no
// final XOR): the checksum camd is told for a camera image, and the check
// of every counter-link packet. One definition, so both ends of each link
// compute the same thing.
#pragma once

#include <boost/crc.hpp>

namespace Updater {

using Crc16CcittFalse = boost::crc_optimal<16, 0x1021, 0xFFFF, 0, false, false>;

}  // namespace Updater
