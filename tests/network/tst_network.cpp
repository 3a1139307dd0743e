#include "dicompeers.h"
#include "syntheticdicom.h"
#include "programs.h"
#include "testcatalog.h"

#include "network/dcmnetwork_p.h"
#include "network/qdcmstoragescp_p.h"
#include "kestrelpaths.h"
#include "qdcmfiles.h"
#include "qdcmrecvfile.h"
#include "qdcmstoragescp.h"
#include "qdcmstoragescu.h"
#include "qdicomservice.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmnet/scu.h>

#include <QDate>
#include <QElapsedTimer>
#include <QProcess>
#include <QSet>
#include <QSettings>
#include <QSignalSpy>
#include <QSqlQuery>
#include <QtTest>

#include <cstring>

#include <poll.h>
#include <unistd.h>

class TestNetwork : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("storescu").isEmpty() || QStandardPaths::findExecutable("storescp").isEmpty())
            QSKIP("DCMTK's storescu/storescp are not installed");
    }

    void serviceBasics()
    {
        // A service without providers: nothing connected, stopping does nothing harmful.
        QDicomService* service = QDicomService::instance();
        QVERIFY(!service->isConnected());
        service->destroyAllstoreScp();
        service->stop();
        QVERIFY(QDicomService::instance() != service);
        QDcmStorageSCP idle;
        idle.onStopService();
        idle.onReleaseInternal();
        QVERIFY(!idle.isConnected());

        // A missing association file ends listen() at once, with a status.
        QTemporaryDir dir;
        Provider broken;
        broken.service->setSCPAssociationConfiguration(dir.filePath("missing.cfg"), "Default");
        broken.service->setPort(short(broken.port));
        broken.service->setOutputDirectory(dir.path() + "/");
        QDcmStorageSCP* scp = broken.service->listen();
        QTRY_VERIFY_WITH_TIMEOUT(scp->lastListenStatus() != 0, 10000);
        QVERIFY(!scp->isAccepting());
    }

    // What the provider takes, for every storage SOP class DCMTK knows (the profile lists 127 of
    // them beside Verification, the provider takes the rest): uncompressed preferred when offered
    // beside a compressed syntax; compressed syntaxes for classes with pixel data only; deflate for
    // all; HTJ2K for none (DCMTK cannot carry it).
    void negotiation_data()
    {
        QTest::addColumn<QStringList>("offered");
        QTest::addColumn<QString>("pixelClasses");
        QTest::addColumn<QString>("otherClasses");
        const QString lee = UID_LittleEndianExplicitTransferSyntax, j2k = UID_JPEG2000LosslessOnlyTransferSyntax;
        QTest::newRow("JPEG 2000 beside uncompressed") << QStringList{j2k, UID_BigEndianExplicitTransferSyntax, lee}
                                                       << lee << lee;
        QTest::newRow("JPEG 2000 alone") << QStringList{j2k} << j2k << QString();
        QTest::newRow("JPEG baseline alone") << QStringList{UID_JPEGProcess1TransferSyntax}
                                             << QString(UID_JPEGProcess1TransferSyntax) << QString();
        QTest::newRow("deflate alone") << QStringList{UID_DeflatedExplicitVRLittleEndianTransferSyntax}
                                       << QString(UID_DeflatedExplicitVRLittleEndianTransferSyntax)
                                       << QString(UID_DeflatedExplicitVRLittleEndianTransferSyntax);
        QTest::newRow("implicit alone") << QStringList{UID_LittleEndianImplicitTransferSyntax}
                                        << QString(UID_LittleEndianImplicitTransferSyntax)
                                        << QString(UID_LittleEndianImplicitTransferSyntax);
        QTest::newRow("HTJ2K alone") << QStringList{"1.2.840.10008.1.2.4.201"} << QString() << QString();
    }
    void negotiation()
    {
        QFETCH(QStringList, offered);
        QFETCH(QString, pixelClasses);
        QFETCH(QString, otherClasses);
        QTemporaryDir dir;
        Provider provider;
        QVERIFY(provider.start(dir.path()));
        OFList<OFString> syntaxes;
        for (const QString& uid : offered)
            syntaxes.push_back(uid.toLatin1().constData());
        // A proposal holds at most 128 presentation contexts: the classes go in a few associations.
        QStringList wrong;
        for (int first = 0; first < numberOfDcmAllStorageSOPClassUIDs; first += 120) {
            DcmSCU scu;
            scu.setPeerHostName("127.0.0.1");
            scu.setPeerPort(Uint16(provider.port));
            scu.setPeerAETitle("KESTREL");
            scu.setAETitle("PROPOSER");
            const int last = qMin(first + 120, numberOfDcmAllStorageSOPClassUIDs);
            for (int i = first; i < last; ++i)
                QVERIFY(scu.addPresentationContext(dcmAllStorageSOPClassUIDs[i], syntaxes).good());
            QVERIFY(scu.initNetwork().good());
            const OFCondition negotiated = scu.negotiateAssociation();
            for (int i = first; i < last; ++i) {
                const char* uid = dcmAllStorageSOPClassUIDs[i];
                const bool pixels = dcmIsImageStorageSOPClassUID(uid) || !std::strcmp(uid, UID_SegmentationStorage)
                                    || !std::strcmp(uid, UID_RTDoseStorage);
                const QString expected = pixels ? pixelClasses : otherClasses;
                QString accepted;
                for (const QString& syntax : offered)
                    if (negotiated.good() && scu.findPresentationContextID(uid, syntax.toLatin1().constData()) != 0)
                        accepted = syntax;
                if (accepted != expected)
                    wrong << QString("%1: %2 instead of %3").arg(dcmFindNameOfUID(uid, uid), accepted, expected);
            }
            if (negotiated.good())
                scu.releaseAssociation();
        }
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join('\n')));
    }

    // How a C-STORE answer counts.
    void storeAnswers()
    {
        using kestrel::internal::StoreAnswer;
        const QList<QPair<quint16, StoreAnswer>> answers{
            {0x0000, StoreAnswer::Success}, {0x0001, StoreAnswer::Warning}, {0xb000, StoreAnswer::Warning},
            {0xb007, StoreAnswer::Warning}, {0x0107, StoreAnswer::Warning}, {0xa700, StoreAnswer::Failure},
            {0xa900, StoreAnswer::Failure}, {0xc000, StoreAnswer::Failure}, {0x0110, StoreAnswer::Failure},
            {0xfe00, StoreAnswer::Failure}};
        for (const auto& [status, answer] : answers)
            QVERIFY2(kestrel::internal::storeAnswer(status) == answer, qPrintable(QString::number(status, 16)));
        QCOMPARE(kestrel::internal::storeStatusText(0xa700), QString("Refused: OutOfResources (0xa700)"));
    }

    // The bookkeeping rows, driven directly: series switching, duplicates, repeated series,
    // options, forwarding and files recorded by the other path.
    void bookkeepingRows_data() { TestCatalog::addBackendRows(); }
    void bookkeepingRows()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        RecvGuard guard;
        QDcmRecvFile* recv = guard.recv;
        recv->setUserOption(true, false, true);
        QSignalSpy uploaded(recv, &QDcmRecvFile::notifyUploadDB);
        QSignalSpy cloud(recv, &QDcmRecvFile::notifyUploadCloud);
        QSignalSpy forwarded(recv, &QDcmRecvFile::notifyForward);

        const QString a = "1.2.3.4'A", b = "1.2.3.5";
        recv->onNotifyInstanceSaved("/r/a1", "", "a.1", a);
        QVERIFY(recv->isToDataBase());
        QVERIFY(recv->timer()->isActive());
        recv->onNotifyInstanceSaved("/r/a2", "", "a.2", a);
        recv->onNotifyInstanceSaved("/r/a1-again", "", "a.1", a);
        QCOMPARE(TestCatalog::count("series"), 0);
        recv->onNotifyInstanceSaved("/r/b1", "", "b.1", b);
        // A is recorded when B starts; B waits for the timer.
        QCOMPARE(uploaded.count(), 1);
        QCOMPARE(uploaded.at(0).at(0).toString(), a);
        QCOMPARE(TestCatalog::value("SELECT recvnum FROM series WHERE seriesUID = ?", {a}).toInt(), 2);
        QCOMPARE(TestCatalog::count("images"), 2);
        QCOMPARE(TestCatalog::value("SELECT filepath FROM images WHERE InstanceUID = 'a.1'"), QString("/r/a1-again"));
        QCOMPARE(TestCatalog::value("SELECT Cloudflag FROM images WHERE InstanceUID = 'a.1'").toInt(), 2);
        QCOMPARE(TestCatalog::value("SELECT DBflag FROM images WHERE InstanceUID = 'a.1'").toInt(), 0);
        QVERIFY(!recv->needtoWriteDB({"x", a}));
        QVERIFY(recv->needtoWriteDB({b}));
        QVERIFY(recv->needtoWriteDB({}));
        QVERIFY(recv->needtoWriteDB({a.toLower()}));

        recv->onTimerSlot();
        QVERIFY(!recv->isToDataBase());
        QVERIFY(!recv->timer()->isActive());
        QCOMPARE(uploaded.count(), 2);
        QCOMPARE(uploaded.at(1).at(0).toString(), b);
        QCOMPARE(cloud.count(), 0);
        QCOMPARE(forwarded.count(), 1);
        QCOMPARE(forwarded.at(0).at(0).toStringList(),
                 QStringList({"/r/a1", "/r/a2", "/r/a1-again", "/r/b1"}));
        QCOMPARE(TestCatalog::count("series"), 2);

        // A series received again: counter replaced, consumers' progress reset, one row per image,
        // each pointing at the file received last.
        QSqlQuery(QSqlDatabase::database()).exec("UPDATE images SET DBflag=1");
        QSqlQuery(QSqlDatabase::database()).exec("UPDATE series SET upDBnum=7, upCloudnum=3");
        for (const char* sop : {"a.1", "a.2", "a.3"})
            recv->onNotifyInstanceSaved(QString("/r2/") + sop, "", sop, a);
        recv->onTimerSlot();
        QCOMPARE(TestCatalog::count("series"), 2);
        QCOMPARE(TestCatalog::value("SELECT recvnum FROM series WHERE seriesUID = ?", {a}).toInt(), 3);
        QCOMPARE(TestCatalog::value("SELECT upDBnum + upCloudnum FROM series WHERE seriesUID = ?", {a}).toInt(), 0);
        QCOMPARE(TestCatalog::count("images", "seriesUID = '1.2.3.4''A'"), 3);
        QCOMPARE(TestCatalog::count("images", "DBflag <> 0"), 1); // only B's image keeps its flag
        QCOMPARE(TestCatalog::value("SELECT filepath FROM images WHERE InstanceUID = 'a.2'"), QString("/r2/a.2"));

        // Files recorded by the other path: grouped by series, no import signal, cloud from then on.
        QSignalSpy files(recv, &QDcmRecvFile::notifyUploadFile);
        recv->onNotifyWriteDB({"c", "c", "d"}, {"c.1", "c.2", "d.1"}, {"/f/c1", "/f/c2", "/f/d1"}, "note");
        QCOMPARE(files.count(), 1);
        QCOMPARE(files.at(0).at(3).toString(), QString("note"));
        QCOMPARE(uploaded.count(), 3); // A twice and B; nothing for these files
        QCOMPARE(TestCatalog::value("SELECT recvnum FROM series WHERE seriesUID = 'c'").toInt(), 2);
        QCOMPARE(TestCatalog::count("images", "Cloudflag = 0"), 3);
        recv->onNotifyInstanceSaved("/r/e1", "", "e.1", "e");
        recv->onTimerSlot();
        QCOMPARE(cloud.count(), 1);
        QCOMPARE(TestCatalog::value("SELECT Cloudflag FROM images WHERE InstanceUID = 'e.1'").toInt(), 0);
    }

    // storescu sends series A (a real series when the shared data is there), B and an object
    // without a Series Instance UID to the provider; A is recorded and imported when B starts, B
    // ten seconds after the last object.
    void receiveAndRecordAfterSilence()
    {
        KESTREL_OPEN_CATALOG(catalog, "sqlite");
        QTemporaryDir dir;
        ReceivingChain chain;
        QVERIFY(chain.start(dir.filePath("recv")));
        QDcmRecvFile* recv = chain.recv();
        const Provider& provider = chain.provider;

        SyntheticImage base;
        QStringList seriesA;
        const QString real = sharedDataPath("siemens_t1_sag");
        if (!real.isEmpty()) {
            for (const QString& name : QDir(real).entryList({"*.dcm"}, QDir::Files, QDir::Name))
                seriesA << real + "/" + name;
        } else {
            seriesA = writeSyntheticSeries(dir.filePath("a"), base, 2);
        }
        const int nA = seriesA.size();
        base.seriesNumber = 2;
        const QStringList seriesB = writeSyntheticSeries(dir.filePath("b"), base, 1);
        const QString noSeries = dir.filePath("noseries.dcm");
        {
            SyntheticImage image;
            QVERIFY(writeSyntheticImage(noSeries, image));
            DcmFileFormat file;
            QVERIFY(file.loadFile(noSeries.toUtf8().constData()).good());
            file.getDataset()->findAndDeleteElement(DCM_SeriesInstanceUID);
            QVERIFY(file.saveFile(noSeries.toUtf8().constData()).good());
        }

        QSignalSpy saved(provider.scp, &QDcmStorageSCP::notifyInstanceSaved);
        QSignalSpy uploaded(recv, &QDcmRecvFile::notifyUploadDB);
        QElapsedTimer sinceLast;
        connect(provider.scp, &QDcmStorageSCP::notifyInstanceSaved, this, [&] { sinceLast.start(); });

        QCOMPARE(storescu(provider.port, seriesA + seriesB + QStringList{noSeries}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), nA + 2, 10000);
        const QString uidA = saved.at(0).at(3).toString(), uidB = saved.at(nA).at(3).toString();
        QVERIFY(uidA != uidB);
        QCOMPARE(saved.at(nA + 1).at(3).toString(), uidB); // announced under the previous object's series
        // Filed under the series date the object carries (read back from each received file).
        const QString dated = "/data/" + QDate::fromString(base.seriesDate, "yyyyMMdd").toString("yyyy/MM/dd") + "/";
        for (int i = nA; i < nA + 2; ++i)
            QVERIFY2(saved.at(i).at(0).toString().contains(dated), qPrintable(saved.at(i).at(0).toString()));
        for (const QList<QVariant>& args : qAsConst(saved)) {
            QVERIFY2(QFileInfo::exists(args.at(0).toString()), qPrintable(args.at(0).toString()));
            QVERIFY(args.at(0).toString().startsWith(
                QDicomService::receivingDirectory(dir.filePath("recv/"), QDate::currentDate())));
        }
        QCOMPARE(uploaded.count(), 1);
        QCOMPARE(uploaded.at(0).at(0).toString(), uidA);
        QVERIFY(recv->isToDataBase());

        QVERIFY(uploaded.wait(15000));
        QVERIFY2(sinceLast.elapsed() >= 9500, qPrintable(QString::number(sinceLast.elapsed())));
        QCOMPARE(uploaded.at(1).at(0).toString(), uidB);
        QVERIFY(!recv->isToDataBase());
        QCOMPARE(TestCatalog::value("SELECT recvnum FROM series WHERE seriesUID = ?", {uidA}).toInt(), nA);
        QCOMPARE(TestCatalog::value("SELECT recvnum FROM series WHERE seriesUID = ?", {uidB}).toInt(), 2);
        QCOMPARE(TestCatalog::count("images"), nA + 2);
        QVERIFY(!provider.service->isConnected());
        // Through the importer every received image of both series is in the catalogue once.
        const QString perSeries = "SELECT %1 FROM imagepixel p JOIN generalseries s ON p.series_fk = s.pk "
                                  "WHERE s.SeriesInstanceUID = ?";
        for (const QString& what : {QString("COUNT(*)"), QString("COUNT(DISTINCT p.SOPInstanceUID)")}) {
            QCOMPARE(TestCatalog::value(perSeries.arg(what), {uidA}).toInt(), nA);
            QCOMPARE(TestCatalog::value(perSeries.arg(what), {uidB}).toInt(), 1);
        }
        // Only what reached the catalogue is marked imported: the object without a series waits.
        QCOMPARE(TestCatalog::count("images", "DBflag = 1"), nA + 1);
        QCOMPARE(TestCatalog::count("images", "DBflag = 0"), 1);
    }

    // Garbage, an unsupported class, an aborting sender, queued associations and 2,000 objects in
    // one association: every accepted object is on disk and in `images` once, and the provider
    // still answers afterwards.
    void providerUnderBadInputAndLoad()
    {
        KESTREL_OPEN_CATALOG(catalog, "sqlite");
        RecvGuard guard;
        QDcmRecvFile* recv = guard.recv;
        QTemporaryDir dir;
        Provider provider;
        QVERIFY(provider.start(dir.filePath("recv")));
        QSet<QString> stored;
        connect(provider.scp, &QDcmStorageSCP::notifyInstanceSaved, recv, &QDcmRecvFile::onNotifyInstanceSaved);
        connect(provider.scp, &QDcmStorageSCP::notifyInstanceSaved, this,
                [&](const QString&, const QString&, const QString& sop, const QString&) { stored << sop; });

        QVERIFY(pokePort(provider.port, QByteArray(4096, '\x5a')));
        QVERIFY(pokePort(provider.port, QByteArray::fromHex("0100000000ff") + QByteArray(100, '\1')));

        SyntheticImage odd;
        odd.sopClassUid = "1.2.826.0.1.3680043.10.543.7"; // no storage SOP class of the standard
        const QString oddFile = dir.filePath("odd.dcm");
        QVERIFY(writeSyntheticImage(oddFile, odd));
        const QStringList mr = writeSyntheticSeries(dir.filePath("mr"), SyntheticImage(), 1);
        storescu(provider.port, {oddFile, mr.first()}, {"-nh"});
        QTRY_COMPARE_WITH_TIMEOUT(stored.size(), 1, 10000);

        SyntheticImage ct;
        ct.sopClassUid = "1.2.840.10008.5.1.4.1.1.2";
        ct.modality = "CT";
        QCOMPARE(storescu(provider.port, writeSyntheticSeries(dir.filePath("ct"), ct, 3), {"--abort"}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(stored.size(), 4, 10000);

        std::vector<std::unique_ptr<PeerProcess>> senders;
        for (int i = 0; i < 4; ++i)
            senders.push_back(std::make_unique<PeerProcess>(
                "storescu", storescuArgs(provider.port, writeSyntheticSeries(dir.filePath(QString("q%1").arg(i)),
                                                                             SyntheticImage(), 5))));
        for (const auto& sender : senders)
            QCOMPARE(sender->finish(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(stored.size(), 24, 10000);

        SyntheticImage small;
        small.rows = small.columns = 8;
        const QStringList many = writeSyntheticSeries(dir.filePath("many"), small, 2000);
        QCOMPARE(storescu(provider.port, {"+sd", dir.filePath("many")}, {}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(stored.size(), 2024, 30000);
        recv->onTimerSlot();

        QCOMPARE(TestCatalog::count("images"), 2024);
        QCOMPARE(TestCatalog::value("SELECT COUNT(DISTINCT InstanceUID) FROM images").toInt(), 2024);
        QCOMPARE(TestCatalog::count("series"), 7);
        QSqlQuery paths(QSqlDatabase::database());
        QVERIFY(paths.exec("SELECT filepath FROM images"));
        int onDisk = 0;
        while (paths.next())
            onDisk += QFileInfo::exists(paths.value(0).toString()) ? 1 : 0;
        QCOMPARE(onDisk, 2024);
        QCOMPARE(filesBelow(dir.filePath("recv")).size(), 2024);

        QCOMPARE(storescu(provider.port, writeSyntheticSeries(dir.filePath("last"), SyntheticImage(), 1)), 0);
        QTRY_COMPARE_WITH_TIMEOUT(stored.size(), 2025, 10000);

        // Stopping in the middle of a transfer aborts the association from the worker thread; what
        // was stored until then is announced, and the sender is told.
        QSignalSpy saved(provider.scp, &QDcmStorageSCP::notifyInstanceSaved);
        PeerProcess sender("storescu", storescuArgs(provider.port, {"+sd", dir.filePath("many")}));
        QTRY_VERIFY_WITH_TIMEOUT(saved.count() >= 20, 20000);
        provider.service->destroyAllstoreScp();
        const int status = sender.finish(20000);
        QVERIFY(status > 0 || (status == 0 && saved.count() == 2000));
        QVERIFY(!provider.service->isConnected());
        QVERIFY(provider.service->providers().isEmpty());
    }

    // Who may send, from config/dicomservice.ini: open by default; a sender or called title outside
    // the lists gets an association rejection naming it, and nothing is stored.
    void peerRules_data()
    {
        QTest::addColumn<QString>("called");
        QTest::addColumn<QString>("calling");
        QTest::addColumn<QString>("senderCalls");
        QTest::addColumn<QString>("senderIs");
        QTest::addColumn<QString>("refusal");
        QTest::newRow("open") << "" << "" << "ANY-SCP" << "STORESCU" << "";
        QTest::newRow("calling listed") << "" << "CT01, STORESCU" << "ANY-SCP" << "STORESCU" << "";
        QTest::newRow("calling not listed") << "" << "CT01,MR02" << "KESTREL" << "OTHER" << "Calling AE Title Not Recognized";
        QTest::newRow("one calling title") << "" << "CT01" << "KESTREL" << "CT01" << "";
        QTest::newRow("called answered") << "KESTREL" << "" << "KESTREL" << "OTHER" << "";
        QTest::newRow("called other") << "KESTREL" << "" << "ANY-SCP" << "CT01" << "Called AE Title Not Recognized";
        QTest::newRow("both") << "KESTREL" << "CT01" << "KESTREL" << "STORESCU" << "Calling AE Title Not Recognized";
    }
    void peerRules()
    {
        QFETCH(QString, called);
        QFETCH(QString, calling);
        QFETCH(QString, senderCalls);
        QFETCH(QString, senderIs);
        QFETCH(QString, refusal);
        QTemporaryDir dir;
        {
            QSettings ini(dir.filePath("config/dicomservice.ini"), QSettings::IniFormat);
            ini.setValue("provider/CalledAETitle", called);
            ini.setValue("provider/CallingAETitles", calling);
        }
        QVERIFY(QFile::exists(dir.filePath("config/dicomservice.ini")));
        Kestrel::setConfigDirectory(dir.filePath("config"));
        Provider provider;
        const bool started = provider.start(dir.filePath("recv"));
        Kestrel::setConfigDirectory(QString());
        QVERIFY(started);
        QSignalSpy saved(provider.scp, &QDcmStorageSCP::notifyInstanceSaved);

        const QStringList files = writeSyntheticSeries(dir.filePath("s"), SyntheticImage(), 1);
        QProcess sender;
        sender.setProcessEnvironment(peerEnvironment());
        sender.setProcessChannelMode(QProcess::MergedChannels);
        QElapsedTimer clock;
        clock.start();
        sender.start("storescu", QStringList{"-aet", senderIs, "-aec", senderCalls, "127.0.0.1",
                                             QString::number(provider.port)} + files);
        QVERIFY(sender.waitForFinished(20000));
        const QString out = QString::fromLocal8Bit(sender.readAll());
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
        if (refusal.isEmpty()) {
            QCOMPARE(sender.exitCode(), 0);
            QTRY_COMPARE_WITH_TIMEOUT(saved.count(), 1, 10000);
            return;
        }
        QVERIFY(sender.exitCode() != 0);
        QVERIFY2(out.contains("Association Rejected") && out.contains(refusal), qPrintable(out));
        QTest::qWait(200);
        QCOMPARE(saved.count(), 0);
        QVERIFY(filesBelow(dir.filePath("recv")).isEmpty());
    }

    // Peers that hold the provider: a request with an empty AE title is rejected at once, and
    // connections that never speak do not keep a real sender waiting.
    void heldByOnePeer()
    {
        QTemporaryDir dir;
        Provider provider;
        QVERIFY(provider.start(dir.filePath("recv")));
        QSignalSpy saved(provider.scp, &QDcmStorageSCP::notifyInstanceSaved);

        const QList<QPair<QByteArray, QByteArray>> titles{{"", "STORESCU"}, {"KESTREL", ""}, {"", ""},
                                                          {"  ", "STORESCU"}};
        for (const auto& [called, calling] : titles) {
            QElapsedTimer clock;
            clock.start();
            const QByteArray answer = exchangeRaw(provider.port, associateRequest(called, calling), 5000);
            QVERIFY2(answer.startsWith('\x03'), qPrintable(answer.toHex()));
            QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
        }
        QVERIFY(exchangeRaw(provider.port, associateRequest("KESTREL", "STORESCU"), 1000).startsWith('\x02'));

        // Three connections that never speak, and two peers that stall inside an accepted association.
        std::vector<std::unique_ptr<SilentPeer>> silent;
        for (int i = 0; i < 5; ++i) {
            silent.push_back(std::make_unique<SilentPeer>(provider.port));
            QVERIFY(silent.back()->fd >= 0);
        }
        for (int i = 3; i < 5; ++i) {
            const QByteArray request = associateRequest("KESTREL", "STALLING");
            QCOMPARE(::write(silent[i]->fd, request.constData(), size_t(request.size())), ssize_t(request.size()));
            char accepted = 0;
            pollfd readable{silent[i]->fd, POLLIN, 0};
            QVERIFY(::poll(&readable, 1, 5000) == 1 && ::read(silent[i]->fd, &accepted, 1) == 1);
            QCOMPARE(accepted, '\x02');
        }
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(storescu(provider.port, writeSyntheticSeries(dir.filePath("s"), SyntheticImage(), 2)), 0);
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), 2, 5000);
        QVERIFY(provider.scp->isConnected());

        // Stopping does not wait for the stalled peers.
        clock.restart();
        provider.service->destroyAllstoreScp();
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
    }

    // Over-long SOP instance UIDs that agree in their first 64 characters: the request carries the
    // same truncated UID for both. Different objects keep files of their own, one sent again is
    // stored once.
    void collidingInstanceNames()
    {
        QTemporaryDir dir;
        Provider provider;
        QVERIFY(provider.start(dir.filePath("recv")));
        QSignalSpy saved(provider.scp, &QDcmStorageSCP::notifyInstanceSaved);

        const QString stem = newTestUid() + ".";
        const QString prefix = stem + QString(64 - stem.size(), '7');
        SyntheticImage image;
        image.seriesUid = newTestUid();
        QStringList files;
        for (int i = 0; i < 2; ++i) {
            image.sopUid = prefix + QString("1.%1").arg(i + 1);
            image.instanceNumber = i + 1;
            files << dir.filePath(QString("long%1.dcm").arg(i));
            QVERIFY(writeSyntheticImage(files.last(), image));
        }
        QCOMPARE(storescu(provider.port, files), 0);
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), 2, 10000);
        const QString first = saved.at(0).at(0).toString(), second = saved.at(1).at(0).toString();
        QVERIFY(first != second);
        QFile a(first), b(second);
        QVERIFY(a.open(QIODevice::ReadOnly) && b.open(QIODevice::ReadOnly));
        QVERIFY(a.readAll() != b.readAll());
        for (int i = 0; i < 2; ++i) {
            DcmFileFormat stored;
            QVERIFY(stored.loadFile(QFile::encodeName(saved.at(i).at(0).toString()).constData()).good());
            OFString instance;
            stored.getDataset()->findAndGetOFString(DCM_InstanceNumber, instance);
            QCOMPARE(QString(instance.c_str()), QString::number(i + 1));
        }

        // The same objects again, in the other order: each is recognised by its bytes.
        QCOMPARE(storescu(provider.port, {files.at(1), files.at(0)}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), 4, 10000);
        QCOMPARE(saved.at(2).at(0).toString(), second);
        QCOMPARE(saved.at(3).at(0).toString(), first);
        QCOMPARE(filesBelow(dir.filePath("recv")).size(), 2);
    }

    // The host's commands: listen until SIGTERM (recording the pending series first), a busy
    // port, a fixed run time; send to storescp and to nobody.
    void commandLine()
    {
        KESTREL_REQUIRE_HOST();
        KESTREL_OPEN_CATALOG(catalog, "sqlite");
        QTemporaryDir dir;
        const QStringList files = writeSyntheticSeries(dir.filePath("src"), SyntheticImage(), 2);
        const int port = freePort();

        HostProcess listen({"--config", catalog.configDir(), "listen", "--port", QString::number(port), "--aet", "KESTREL",
                            "--out", dir.filePath("recv"), "--import"});
        QVERIFY2(listen.readUntil("listening on port"), qPrintable(listen.out));
        QCOMPARE(storescu(port, files), 0);
        QVERIFY2(listen.readUntil("stored ", 2), qPrintable(listen.out));

        // The port is taken by the first listener.
        HostRun run = runHost({"--config", catalog.configDir(), "listen", "--port", QString::number(port), "--out",
                               dir.filePath("recv2")});
        QCOMPARE(run.exitCode, 1);
        QVERIFY(run.err.contains("kestrel listen:"));

        QCOMPARE(listen.stop(), 0);
        QVERIFY2(listen.out.contains("recorded series ") && listen.out.endsWith("stopped\n"), qPrintable(listen.out));
        QCOMPARE(TestCatalog::count("images"), 2);
        QVERIFY2(listen.out.contains(" (2 images)\n"), qPrintable(listen.out));
        QCOMPARE(TestCatalog::count("imagepixel"), 2);

        run = runHost({"--config", catalog.configDir(), "listen", "--port", QString::number(freePort()), "--out",
                       dir.filePath("recv3"), "--seconds", "1"});
        QCOMPARE(run.exitCode, 0);

        Storescp peer;
        QVERIFY(QDir().mkpath(dir.filePath("peer")));
        QVERIFY(peer.start(dir.filePath("peer")));
        run = runHost({"send", "--port", QString::number(peer.port), "--aet", "PEER", dir.filePath("src")});
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains("sent 1/2\nsent 2/2\n"), qPrintable(run.out));
        QCOMPARE(filesBelow(dir.filePath("peer")).size(), 2);

        run = runHost({"send", "--port", QString::number(freePort()), "--aet", "PEER", files.first()});
        QVERIFY(run.exitCode != 0);
        QVERIFY(run.err.contains("kestrel send:"));
    }

    // Our storage user against DCMTK's storescp: the send paths, the queue, refusing, aborting and
    // absent peers.
    void storageUser()
    {
        QTemporaryDir dir;
        const QStringList files = writeSyntheticSeries(dir.filePath("src"), SyntheticImage(), 3);
        QFile junk(dir.filePath("src-junk.txt"));
        QVERIFY(junk.open(QIODevice::WriteOnly) && junk.write("not dicom") > 0);
        junk.close();

        QDcmStorageSCU* scu = QDcmStorageSCU::instance();
        QCOMPARE(QDcmStorageSCU::instance(), scu);
        QCOMPARE(scu->onNotifySentDicomFiles(), -1); // nothing queued, no private object yet
        scu->SetForwardinfo("NODE", "127.0.0.1", 104);
        QCOMPARE(scu->aeTitle(), QString("NODE"));
        QCOMPARE(scu->peerAETitle(), QString("NODE"));
        QCOMPARE(scu->onNotifySentDicomFiles(), -1);
        QCOMPARE(scu->onNotifyAddOneDicomFile(junk.fileName()), -1);

        Storescp peer;
        QVERIFY(QDir().mkpath(dir.filePath("peer")));
        QVERIFY(peer.start(dir.filePath("peer")));
        QSignalSpy sent(scu, &QDcmStorageSCU::notifyInstanceSent);
        scu->onNotifySendSelectData(files + QStringList{junk.fileName()}, "PEER", "127.0.0.1", peer.port);
        QCOMPARE(sent.count(), 3);
        QCOMPARE(scu->queuedFiles(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(filesBelow(dir.filePath("peer")).size(), 3, 10000);

        // Forwarding queues the received files and sends them once.
        scu->SetForwardinfo("PEER", "127.0.0.1", peer.port);
        scu->onNotifyForward(files.mid(0, 2));
        QCOMPARE(sent.count(), 5);
        QCOMPARE(scu->queuedFiles(), 0);

        // The "MRA" node of the send configuration gets a whole folder.
        QTemporaryDir config;
        Kestrel::setConfigDirectory(config.path());
        QSettings ini(config.filePath("dicomsendservice.ini"), QSettings::IniFormat);
        ini.setValue("OTHER/Port", peer.port);
        ini.sync();
        scu->onNotifySendMRA(1, dir.filePath("src"));
        QCOMPARE(sent.count(), 5);
        ini.setValue("MRA/AETitle", "PEER");
        ini.setValue("MRA/IP", "127.0.0.1");
        ini.setValue("MRA/Port", peer.port);
        ini.sync();
        scu->onNotifySendMRA(0, dir.filePath("src"));
        QCOMPARE(sent.count(), 5);
        scu->onNotifySendMRA(1, dir.filePath("src"));
        Kestrel::setConfigDirectory(QString());
        QCOMPARE(sent.count(), 8);

        // Failures: nobody listening, a refusing peer, a peer that aborts while receiving.
        scu->SetForwardinfo("PEER", "127.0.0.1", freePort());
        QCOMPARE(scu->onNotifyAddOneDicomFile(files.first()), 0);
        QCOMPARE(scu->onNotifySentDicomFiles(), -1);
        Storescp refusing;
        QVERIFY(refusing.start(dir.path(), {"--refuse"}));
        scu->SetForwardinfo("PEER", "127.0.0.1", refusing.port);
        QCOMPARE(scu->onNotifyAddOneDicomFile(files.first()), 0);
        QCOMPARE(scu->onNotifySentDicomFiles(), -1);
        Storescp aborting;
        QVERIFY(aborting.start(dir.path(), {"--abort-after"}));
        scu->SetForwardinfo("PEER", "127.0.0.1", aborting.port);
        for (const QString& file : files)
            QCOMPARE(scu->onNotifyAddOneDicomFile(file), 0);
        QCOMPARE(scu->onNotifySentDicomFiles(), -1);

        // The user still works after those failures.
        scu->SetForwardinfo("PEER", "127.0.0.1", peer.port);
        QCOMPARE(scu->onNotifyAddOneDicomFile(files.last()), 0);
        QCOMPARE(scu->onNotifySentDicomFiles(), 0);
        delete scu;
    }
};

QTEST_GUILESS_MAIN(TestNetwork)
#include "tst_network.moc"
