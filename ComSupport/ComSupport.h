#pragma once
// The COM server layer of the service in one include. It depends on the platform alone.

#include "ComSupport/ClassFactory.h"
#include "ComSupport/ConnectionPoint.h"
#include "ComSupport/Dispatch.h"
#include "ComSupport/Module.h"
#include "ComSupport/Object.h"
#include "ComSupport/ObjectRoot.h"
