#include "server/tarnd_methods.h"
