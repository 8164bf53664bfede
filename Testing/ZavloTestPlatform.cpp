#include "Testing/ZavloTestPlatform.hpp"

ZavloTestPlatform::ZavloTestPlatform()
    : scheduler_(ZavloTestScheduler::create()), mainQueue_(scheduler_->makeQueue("main")) {}
