// Agent::RunLink: "ZarnuAgent -link -username=NAME -root=DIR [-cloudAddress=URL]".
// Reads the password from the first line of standard input, logs in, and
// stores the token, user, root folder (made absolute, created when missing)
// and cloud address in config.db. Prints one line on success; raises the
// login's YError (191 for a wrong password, 163 when the cloud cannot be
// reached) otherwise, and stores nothing then.
#pragma once

#include "Qel/YString.h"
#include "YAgentCommandLine.h"

namespace Agent {

int RunLink(const YAgentCommandLine& commandLine, const Qel::YString& dataFolder);

}  // namespace Agent
