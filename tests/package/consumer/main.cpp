// A tiny outside program: opens the catalogue shipped with the installed tree.
#include <kestrelpaths.h>
#include <veldatabaseconnection.h>

#include <QCoreApplication>
#include <QDir>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QVariant>

#include <cstdio>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    QDir().mkpath(dir.filePath("config"));
    QFile ini(dir.filePath("config/database.ini"));
    ini.open(QIODevice::WriteOnly);
    ini.write(QString("[currentdatabase]\ndbname=orvena\n[orvena]\ndatabaseType=QSQLITE\ndatabaseName=%1\n")
                  .arg(QDir(Kestrel::applicationDir()).relativeFilePath(dir.filePath("c.sqlite")))
                  .toUtf8());
    ini.close();
    Kestrel::setConfigDirectory(dir.filePath("config"));
    if (!createConnection())
        return 1;
    QSqlQuery query;
    if (!query.exec("SELECT COUNT(*) FROM patientuser") || !query.next())
        return 2;
    std::printf("consumer: catalogue ready, %d user row(s)\n", query.value(0).toInt());
    return 0;
}
