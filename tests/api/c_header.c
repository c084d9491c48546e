#include "frfcam/frfcam.h"
