#pragma once
// Sub-commands that work below the parser interface (format tools).
// Each takes the arguments after its own name and returns the exit status.
int RunVrml97Command(int argc, char** argv);
int RunLxoCommand(int argc, char** argv);
