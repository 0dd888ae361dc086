#pragma once
// What both host programs do around one simulation.
#include <iostream>
#include <new>
#include <stdexcept>

#include "run/Keld.h"

namespace host {

// Runs main_agent. The library lets a token that is no number, or a number
// out of range, escape from its string conversions; the host turns that into
// a plain status 1 with a message instead of an abort.
inline int RunSimulation() {
  try {
    main_agent();
  } catch (const std::invalid_argument& e) {
    std::cout << std::endl << "A deck holds a value that is not a number (" << e.what() << ")" << std::endl;
    return 1;
  } catch (const std::out_of_range& e) {
    std::cout << std::endl << "A deck holds a value out of range or a line with too few values (" << e.what() << ")"
              << std::endl;
    return 1;
  } catch (const std::bad_alloc&) {
    std::cout << std::endl << "The run needs more memory than this machine can give" << std::endl;
    return 1;
  }
  return 0;
}

}  // namespace host
