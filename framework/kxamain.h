// The framework's main loop: runs the registered agent loader once, then
// serves until AVR_Shutdown.
#pragma once

int kxamain(int argc, char** argv);
