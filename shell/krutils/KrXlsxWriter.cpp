#include "KrXlsxWriter_p.h"
