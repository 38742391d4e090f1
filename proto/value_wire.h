/// All of the value encoding: the type bytes, the primitive writers, the read cursor with the primitive
/// readers, and the checking pass.
#pragma once

#include "proto/transport_type.h"
#include "proto/value_check.h"
#include "proto/wire_reader.h"
#include "proto/wire_writer.h"
