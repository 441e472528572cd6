# Refuses an include of host code in the simulated board. The simulator stands in for the
# hardware: were it to borrow the host's code, a mistake in that code would be made on both sides
# of the wire and no test would see it. So its files may include only its own headers (sim/), the
# shared packet formats (wire/), the platform layer (platform/) and system headers: the tool's
# tier check with those two folders below it.
#
#   cmake -DROOT=<source tree> -DDIR=<folder to check> [-DSTAMP=<file>] -P CheckIncludes.cmake
#
# Fails naming every offending file and include; writes STAMP only when there is none.

cmake_minimum_required(VERSION 3.25)

set(FOLDER sim)
set(BELOW wire platform)
include(${CMAKE_CURRENT_LIST_DIR}/../cmake/CheckTiers.cmake)
