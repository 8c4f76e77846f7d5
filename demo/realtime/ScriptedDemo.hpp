#pragma once

namespace vantor::demo {

/// The scripted tour; returns the process exit code.
int runScripted();

}  // namespace vantor::demo
