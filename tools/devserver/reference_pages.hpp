#pragma once

namespace virela::devserver {

class Router;

// The protocol reference at "/docs" and its style sheet at "/docs/{file}", from the copies built
// into the program. Public documentation: no token, whether or not the console is on.
void addReferencePages(Router& router);

}  // namespace virela::devserver
