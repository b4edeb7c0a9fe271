#include "KrXlsxReader_p.h"
