// The one translation unit that compiles Beast.
#include <boost/beast/src.hpp>
