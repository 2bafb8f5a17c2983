// The host prompt service's notice to the program it runs in, so that a program drawing on the same
// terminal (the fcadmin tool's progress line) gets out of the way. Internal to the host services.
#pragma once

namespace fcadmin::host {

// Called with true before a prompt is shown and with false once its answer is read.
using PromptObserver = void (*)(bool prompting);

// Sets the observer of ork_infra_scanf (null: none). Not thread-safe: set it from the thread that
// prompts, outside a prompt.
void set_prompt_observer(PromptObserver observer);

}  // namespace fcadmin::host
