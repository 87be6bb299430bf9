// The service process's entry: command line, log configuration, engine port,
// listening address, then the listener's main loop.
#pragma once

int SLFCefServiceMain(int argc, char** argv);
