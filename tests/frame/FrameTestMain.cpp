// The workbench tests run inside one application object with the workbench's services, as the program does.
#include "common/Standardmessage.h"
#include "frame/Qtapplication.h"
#include "frame/Qtmessages.h"
#include "support/TestDataObjects.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  TOrvexQtApplication app(argc, argv);
  app.InstallServices();
  oxtest::EnsureMemoryStrategy();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(CreateQtMessagingStrategy());
  const int result = RUN_ALL_TESTS();
  TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
  app.RemoveServices();
  return result;
}
