// The two usage texts.
#pragma once

void print_usage(const char* invocation);           // --help, and after a wrong option
void print_advanced_usage(const char* invocation);  // --advhelp
