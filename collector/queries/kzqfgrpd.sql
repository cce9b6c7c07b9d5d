-- kzqfgrpd: filegroups. One row per filegroup of every user database (TOP (@max_rows) by
-- database and filegroup).
-- Reads: sys.databases, and in each user database sys.filegroups and sys.database_files
--        with FILEPROPERTY(name, 'SpaceUsed').
-- Needs: CONNECT ANY DATABASE and VIEW ANY DEFINITION: filegroups are known only inside
-- their database, so this runs once in each online user database the login may enter
-- (single-user databases are skipped).
-- Sizes in MB. FGMAXSIZE: the most the filegroup's files may grow to; no value when a
-- file may grow without limit.
DECLARE @filegroups TABLE (database_id int NOT NULL, data_space_id int NOT NULL,
                           name sysname NOT NULL, size_pages bigint NULL,
                           used_pages bigint NULL, max_pages bigint NULL);
DECLARE @each_db nvarchar(max) = N'';
SELECT @each_db = @each_db + N'EXEC ' + QUOTENAME(name) + N'.sys.sp_executesql @q;'
FROM sys.databases
WHERE database_id > 4 AND state = 0 AND user_access <> 1 AND HAS_DBACCESS(name) = 1
  AND database_id NOT IN (SELECT rs.database_id
                          FROM sys.dm_hadr_database_replica_states AS rs
                          JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
                          WHERE rs.is_local = 1 AND rs.is_primary_replica = 0
                            AND ar.secondary_role_allow_connections <> 2);
INSERT INTO @filegroups (database_id, data_space_id, name, size_pages, used_pages, max_pages)
EXEC sys.sp_executesql @each_db, N'@q nvarchar(max)',
    @q = N'SELECT DB_ID(), fg.data_space_id, fg.name,
                  SUM(CAST(f.size AS bigint)),
                  SUM(CAST(FILEPROPERTY(f.name, ''SpaceUsed'') AS bigint)),
                  CASE WHEN MAX(CASE WHEN f.growth > 0 AND f.max_size = -1 THEN 1 ELSE 0 END) = 1 THEN NULL
                       ELSE SUM(CAST(CASE WHEN f.growth = 0 THEN f.size ELSE f.max_size END AS bigint)) END
           FROM sys.filegroups AS fg
           JOIN sys.database_files AS f ON f.data_space_id = fg.data_space_id
           GROUP BY fg.data_space_id, fg.name;';

SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    DB_NAME(g.database_id) AS UDBNAME,
    g.data_space_id AS FGID,
    g.name AS FGNAME,
    g.size_pages / 128 AS FGSIZE,
    g.used_pages * 100 / NULLIF(g.size_pages, 0) AS FGPCTUSE,
    g.max_pages / 128 AS FGMAXSIZE
FROM @filegroups AS g
ORDER BY g.database_id, g.data_space_id;
